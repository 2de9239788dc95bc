#!/usr/bin/env bash
# A background run that reaches the end of its input takes up execute_qax_PID: the
# file is copied to .qaxexec_1_qax_PID and run, and the original is removed.
#   bash execute_file.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2

"$qax" bground 'log x.log; quote first part; pause 3;' </dev/null 2>err.txt >out.txt &
pid=$!
printf 'quote from the execute file;\nquit;\n' > "tmp_exec"
mv tmp_exec "execute_qax_$pid"
wait "$pid"
status=$?

fail=0
if [ "$status" != 0 ]; then echo "exit status $status, expected 0 (quit in the execute file)"; fail=1; fi
[ -e "execute_qax_$pid" ] && { echo "execute file was not removed"; fail=1; }
cmp -s ".qaxexec_1_qax_$pid" <(printf 'quote from the execute file;\nquit;\n') || { echo "copy .qaxexec_1_qax_$pid missing or different"; fail=1; }
grep -q "first part" x.log || { echo "log lacks the first part"; fail=1; }
grep -q "from the execute file" x.log || { echo "log lacks the text of the execute file"; fail=1; }
grep -q "Quitting QAX" x.log && { echo "run ended at end of input instead"; fail=1; }
[ "$fail" = 0 ] || { echo "--- x.log"; cat x.log; }
exit $fail
