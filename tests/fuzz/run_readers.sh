#!/usr/bin/env bash
# Builds the in-program readers fuzz target (xread, tread, Newick, compact trees) with
# clang and libFuzzer in build-fuzz/readers and runs it for a bounded time (default 60 s;
# first argument overrides), seeded with small matrices and trees. Non-zero on a finding.
set -eu -o pipefail
seconds=${1:-60}
root=$(cd "$(dirname "$0")/../.." && pwd)
out=${FUZZ_BUILD_DIR:-$root/build-fuzz}/readers
mkdir -p "$out/corpus"
CC=clang CXX=clang++ cmake -S "$root" -B "$out" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQAX_FUZZ=ON -DQAX_TESTS=OFF >/dev/null
cmake --build "$out" -j "$(nproc)" --target readers_fuzz >/dev/null
# Seeds: small matrices (first byte 0: xread) and trees (1: tread, 2: tree readers).
for f in "$root"/tests/data/Longrich2010.xread "$root"/tests/e2e/dataset/*.dat; do
  [ -e "$f" ] || continue
  { printf '\000'; sed -e '1s/^xread//' "$f"; } > "$out/corpus/m_$(basename "$f")"
done
printf '\001(a (b (c d)));' > "$out/corpus/t1"
printf '\002((a,b),(c,d));' > "$out/corpus/t2"
cd "$out"
./readers_fuzz -seed="${FUZZ_SEED:-0}" ${FUZZ_RUNS:+-runs=$FUZZ_RUNS} -max_total_time="$seconds" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
  -print_final_stats=1 corpus 2>&1 | tail -n 15
