#!/usr/bin/env bash
# Rearrangements per second of mult (Wagner trees then TBR) with equal weights and under
# implied weighting, on the real matrices of the tests.
#   bench/implied.sh [path/to/qax] [replications]   (default: build/qax 3)
set -eu
qax=$(realpath "${1:-build/qax}")
reps=${2:-3}
data=$(realpath "$(dirname "$0")/../tests/data")
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work"
printf '%-14s %-8s %12s %10s %14s %12s\n' matrix weights moves seconds moves/second best
for m in Longrich2010 Asher2005 Wills2012 Conrad2008; do
  for w in "piwe -" "piwe =3" "piwe =10"; do
    printf 'proc %s/%s.xread;\n%s;\nrseed 1;\nmult=replic %s tbr;\n' "$data" "$m" "$w" "$reps" > b.run
    start=$(date +%s.%N)
    out=$("$qax" 'proc b.run;' 2>&1 </dev/null)
    end=$(date +%s.%N)
    moves=$(printf '%s\n' "$out" | sed -n 's/^Total rearrangements examined: \([0-9]*\).*/\1/p')
    best=$(printf '%s\n' "$out" | sed -n 's/^Best score (TBR): \([0-9.]*\)\..*/\1/p')
    secs=$(echo "$end - $start" | bc -l)
    rate=$(echo "${moves:-0} / $secs" | bc -l)
    printf '%-14s %-8s %12s %10.2f %14.0f %12s\n' "$m" "${w#piwe }" "${moves:-?}" "$secs" "$rate" "${best:-?}"
  done
done
