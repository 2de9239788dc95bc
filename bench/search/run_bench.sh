#!/usr/bin/env bash
# Search benchmark: for each matrix, runs mult with a growing number of replications until
# the known best length is reached (or the budget is spent) and prints the best length,
# the time to reach it and TBR rearrangements examined per second. When phylip's dnapars
# is installed, it is run on the DNA matrices for comparison (one jumble, default search).
#   usage: bench/search/run_bench.sh [qax binary] [data folder]
set -u
qax=${1:-$(dirname "$0")/../../build-search/qax}
data=${2:-/work/shared/data}
printf "%-16s %6s %8s %8s %10s %14s %s\n" matrix taxa known best seconds "TBR rearr/s" "reps"
one() {  # name known max_reps hold
  local name=$1 known=$2 max=$3 hold=$4 reps=1 out best total t0 t1 secs
  while :; do
    t0=$(date +%s.%N)
    out=$("$qax" "proc $data/$name/$name.xread, mult=replic $reps tbr hold $hold, quit," 2>&1)
    t1=$(date +%s.%N)
    best=$(sed -n 's/^Best score (TBR): \([0-9.]*\)\..*/\1/p' <<<"$out")
    total=$(sed -n 's/^Total rearrangements examined: \([0-9]*\)\./\1/p' <<<"$out")
    secs=$(echo "$t1 - $t0" | bc -l)
    if [ -z "$best" ]; then echo "$name: no result"; echo "$out" | tail -3; return; fi
    if [ "$best" -le "$known" ] || [ "$reps" -ge "$max" ]; then break; fi
    reps=$((reps * 2))
  done
  local taxa; taxa=$(sed -n '3p' "$data/$name/$name.xread" | awk '{print $2}')
  [ -z "$taxa" ] && taxa=$(grep -m1 -E '^[0-9]+ [0-9]+' "$data/$name/$name.xread" | awk '{print $2}')
  printf "%-16s %6s %8s %8s %10.2f %14.0f %s\n" "$name" "$taxa" "$known" "$best" "$secs" "$(echo "$total / $secs" | bc -l)" "$reps"
}
one Longrich2010 128 64 5
one Asher2005 341 64 5
one Wills2012 268 256 5
one Conrad2008 1704 256 5
one primates 1153 16 5
one woodmouse 68 16 5
one cynmix 5320 64 5
one Laurasiatherian 9713 64 5
one chloroplast 11064 16 5
one rrna150 8471 128 1
one rbcl500 16531 32 1
one dna2000 74613 2 1

dnapars_cmd=""
if command -v dnapars >/dev/null 2>&1; then dnapars_cmd=dnapars; elif command -v phylip >/dev/null 2>&1; then dnapars_cmd="phylip dnapars"; fi
if [ -n "$dnapars_cmd" ]; then
  echo
  echo "dnapars (phylip), default settings:"
  for name in primates woodmouse Laurasiatherian rrna150 rbcl500; do
    xr="$data/$name/$name.xread"
    w=$(mktemp -d)
    # Sequential infile from the xread rows; names of 10 characters T000000001...
    awk '/^&\[/{on=1; next} on && /^;/{exit} on && NF==2 {n++; s=$2; gsub(/-/, "?", s); seq[n]=s} \
         END{printf "%d %d\n", n, length(seq[1]); for(i=1;i<=n;i++) printf "T%09d%s\n", i, seq[i]}' "$xr" > "$w/infile"
    t0=$(date +%s.%N)
    # Bounded: the menu program waits for input if the file isn't what it expects.
    (cd "$w" && printf "Y\n" | timeout 600 $dnapars_cmd >/dev/null 2>&1) || true
    t1=$(date +%s.%N)
    len=$(sed -n 's/.*requires a total of *\([0-9.]*\).*/\1/p' "$w/outfile" | sort -n | head -1)
    printf "%-16s %8s %10.2f\n" "$name" "${len:-?}" "$(echo "$t1 - $t0" | bc -l)"
    rm -rf "$w"
  done
fi
