#!/usr/bin/env bash
# Requests larger than the process can hold fail the command with a message; the
# session goes on and a new analysis in it works. Run under a 4 GB address-space
# limit, as on many shared machines (not under AddressSanitizer, which needs more).
#   bash memory_limit.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
if ldd "$qax" 2>/dev/null | grep -q asan || nm "$qax" 2>/dev/null | grep -q __asan_init; then
  echo "skipped: the address-space limit can't be set under AddressSanitizer"; exit 0
fi

fail=0
# Each request, then a small analysis in the same session (keyboard input).
check() {
  local request=$1 message=$2
  printf '%s\nxread /12 8 2;\nrseed 1;\nmult=replic 2;\nquote analysis done;\nquit;\n' "$request" >in.txt
  ( ulimit -v 4000000; "$qax" <in.txt >out.txt 2>err.txt )
  local status=$?
  if [ "$status" != 0 ]; then echo "[$request] exit status $status"; fail=1; fi
  grep -qF -- "$message" err.txt || { echo "[$request] message missing: $message"; fail=1; }
  grep -q "terminate called\|bad_alloc" err.txt && { echo "[$request] uncaught allocation failure"; fail=1; }
  grep -q "^Best score (TBR)" err.txt || { echo "[$request] the search after it did not run"; fail=1; }
  grep -q "analysis done" err.txt || { echo "[$request] session did not go on"; fail=1; }
  [ "$fail" = 0 ] || { echo "--- stderr"; cat err.txt; exit 1; }
}
check 'xread /5 1151205120 2;' 'Sorry, not enough memory to generate 5 chars. and 1151205120 taxa'
check 'xread /5 300000000 4;' 'Sorry, not enough memory to generate 5 chars. and 300000000 taxa'
check 'xread /7 2000000000 3;' 'Sorry, not enough memory to generate 7 chars. and 2000000000 taxa'
check 'nstates 32; xread /3 900000000 32;' 'Sorry, not enough memory to generate 3 chars. and 900000000 taxa'
check 'xread /1151205120 5 2;' 'Sorry, not enough memory to generate 1151205120 chars. and 5 taxa'
check 'xread 5 2000000000 a 0 b 0;' 'Allocation failure: not enough RAM available'
check 'mxram 100000000;' 'Allocation failure: not enough RAM available'
check 'xread /12 8 2; hold 100000000;' 'Cannot make tree space for 100000000'
# Generated data along a tree keep the old data and tree when the new matrix can't be held.
printf 'xread /12 8 2;\nrseed 1;\nmult=replic 1 hold 1;\nxread +0 50 2000000000 4;\ntplot 0;\nlength 0;\nquit;\n' >in.txt
( ulimit -v 4000000; "$qax" <in.txt >out.txt 2>err.txt ) || { echo "xread + run failed"; fail=1; }
grep -qF 'Sorry, not enough memory to generate 2000000000 chars. and 8 taxa' err.txt || { echo "xread +: message missing"; fail=1; }
[ "$(grep -c '^Tree lengths' err.txt)" = 1 ] || { echo "xread +: the tree did not survive"; fail=1; }
[ "$fail" = 0 ] || { echo "--- stderr"; cat err.txt; }
exit $fail
