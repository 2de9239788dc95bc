#!/usr/bin/env bash
# Times macro loops: a loop of 100000 passes setting a variable, and the same with an
# expression and an if in the body.
#   bench/macro_loop.sh [path/to/qax]   (default: build/qax)
set -eu
qax=$(realpath "${1:-build/qax}")
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work"
cat > plain.run <<'RUN'
macro=; var : x; loop 1 100000 set x #1; stop quote x is 'x'; proc/;
RUN
cat > body.run <<'RUN'
macro=; var : x y; set y 0; loop 1 100000 set x (#1 * 3) + 1; if ('x' > 150000) set y ++; end stop quote y is 'y'; proc/;
RUN
for f in plain body; do
  start=$(date +%s.%N)
  "$qax" proc $f.run, quit >/dev/null 2>&1
  end=$(date +%s.%N)
  printf "%-6s loop of 100000 passes: %.3f s\n" "$f" "$(echo "$end - $start" | bc)"
done
