#!/usr/bin/env bash
# Builds qax and runs the demonstration analysis on bundled data.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$(nproc)" --target qax
cd demo && ../build/qax proc demo.run\; </dev/null
