#!/usr/bin/env bash
# Runs one end-to-end case and compares what qax printed and wrote with the expected text.
#   <case>.run       instruction file (run by "qax proc <case>.run;" unless <case>.args exists)
#   <case>.args      command-line arguments, one line (the word CASE stands for the .run file)
#   <case>.stdin     standard input (default: empty)
#   <case>.expected  expected standard error
#   <case>.status    expected exit status (default 0)
#   <case>.out.NAME  expected content of file NAME written in the working directory
# The working directory is a fresh temporary folder holding the case's files and a
# link "data" to the test data folder.
set -u
qax=$1; case_file=$2; data=$3
dir=$(dirname "$case_file"); base=$(basename "$case_file" .run)
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cp "$dir"/* "$work"/ 2>/dev/null
ln -s "$data" "$work/data"
cd "$work" || exit 2
if [ -f "$base.args" ]; then args=$(sed "s/CASE/$base.run/g" "$base.args"); else args="proc $base.run;"; fi
stdin=/dev/null; [ -f "$base.stdin" ] && stdin="$base.stdin"
export HOME="$work"
# shellcheck disable=SC2086
eval "\"$qax\" $args" <"$stdin" 2>actual.err >actual.out
status=$?
want_status=0; [ -f "$base.status" ] && want_status=$(cat "$base.status")
fail=0
if [ "$status" != "$want_status" ]; then echo "exit status $status, expected $want_status"; fail=1; fi
if [ -f "$base.expected" ] && ! diff -u "$base.expected" actual.err; then fail=1; fi
for exp in "$base".out.*; do
  [ -e "$exp" ] || continue
  name=${exp#"$base.out."}
  if ! diff -u "$exp" "$name"; then fail=1; fi
done
exit $fail
