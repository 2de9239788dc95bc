#!/usr/bin/env bash
# Builds the command-language fuzz target with clang and libFuzzer in
# build-fuzz/readers (shared with the readers target) and runs it for a bounded time
# (default 60 s; first argument overrides). Seeds: every end-to-end instruction file and
# the example forms of the help texts. Non-zero on a finding.
set -eu -o pipefail
seconds=${1:-60}
root=$(cd "$(dirname "$0")/../.." && pwd)
out=${FUZZ_BUILD_DIR:-$root/build-fuzz}/readers
mkdir -p "$out/commands_corpus"
CC=clang CXX=clang++ cmake -S "$root" -B "$out" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQAX_FUZZ=ON -DQAX_TESTS=OFF >/dev/null
cmake --build "$out" -j "$(nproc)" --target commands_fuzz >/dev/null 2>&1
i=0
for f in "$root"/tests/e2e/*/*.run "$root"/tests/e2e/*/*.stdin; do
  [ -e "$f" ] && [ "$(stat -c %s "$f")" -le 8192 ] || continue
  i=$((i + 1)); cp "$f" "$out/commands_corpus/e2e_$i"
done
# Help lines that start with a command form ("word ...;") are seeds too.
sed -n 's/^ *"\([a-z][a-z]*[^"]*;\).*/\1/p' "$root/src/app/help_text.cpp" | sed 's/\\n//g' |
  awk '{ print > ("'"$out"'/commands_corpus/help_" NR) }'
cd "$out"
ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=0 \
./commands_fuzz -seed="${FUZZ_SEED:-0}" ${FUZZ_RUNS:+-runs=$FUZZ_RUNS} -max_total_time="$seconds" -max_len=4096 \
  -timeout=20 -rss_limit_mb=2048 -malloc_limit_mb=4096 -close_fd_mask=3 -print_final_stats=1 "$out/commands_corpus" 2>&1 | tail -n 15
