#!/usr/bin/env bash
# Builds the import fuzz target with clang and libFuzzer and runs it for a bounded
# time (default 60 s; first argument overrides), seeded with the small matrices of
# tests/data. Exits non-zero when the fuzzer finds a crash, leak or hang.
set -eu -o pipefail
seconds=${1:-60}
root=$(cd "$(dirname "$0")/../.." && pwd)
out=${FUZZ_BUILD_DIR:-$root/build-fuzz}
mkdir -p "$out/corpus"
clang++ -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$root/src" "$root/tests/fuzz/import_fuzz.cpp" \
  "$root/src/dataset/import_matrix.cpp" "$root/src/dataset/import_nexus.cpp" "$root/src/dataset/import_nexus_sets.cpp" \
  "$root/src/dataset/import_sequences.cpp" \
  -o "$out/import_fuzz"
for f in "$root"/tests/data/*.nex "$root"/tests/data/*.fasta "$root"/tests/e2e/import/*.nex \
         "$root"/tests/e2e/import/*.fasta "$root"/tests/e2e/import/*.phy; do
  [ -e "$f" ] && [ "$(stat -c %s "$f")" -le 20000 ] && cp "$f" "$out/corpus/" || true
done
cd "$out"
./import_fuzz -seed="${FUZZ_SEED:-0}" ${FUZZ_RUNS:+-runs=$FUZZ_RUNS} -max_total_time="$seconds" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
  -print_final_stats=1 corpus 2>&1 | tail -n 15
