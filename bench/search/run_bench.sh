#!/usr/bin/env bash
# Search benchmark. For each bundled matrix it prints:
#   - best: the best length found by `mult` with the ratchet (one replication, ratchet
#     iterations until the known best length is found or the budget is spent), and the CPU
#     time of that run, which is the time to reach the known best when it was reached;
#   - TBR rearrangements examined per CPU second, from plain `mult` replications of Wagner
#     tree plus TBR (hold 1), and the best length those replications reach;
#   - when installed, the peers on the same matrices: phylip's dnapars (default search, one
#     jumble) and phangorn's pratchet (default settings), best length and time; then qax
#     again, aimed at the best length of the peers (or the known one, if shorter), with the
#     time it takes to reach it.
#   usage: bench/search/run_bench.sh [qax binary] [data folder] [matrix ...]
# Peers run on the DNA matrices (pratchet also on protein); each peer run is bounded by
# PEER_TIMEOUT seconds (default 900). Rates of runs shorter than 0.2 s of CPU are not shown.
set -u
qax=${1:-$(dirname "$0")/../../build/qax}
data=${2:-/work/shared/data}
shift 2 2>/dev/null || shift $#
only=" $* "
peer_timeout=${PEER_TIMEOUT:-900}
want() { [ "$only" = "  " ] || [[ "$only" == *" $1 "* ]]; }
cpu() { sed -n 's/^CPU \([0-9.]*\)$/\1/p' <<<"$1"; }

printf "%-16s %5s %6s | %8s %8s | %8s %8s %14s\n" matrix taxa known "ratchet" "CPU s" "TBR best" "CPU s" "TBR rearr/s"
one() {  # name known ratchet_iterations tbr_replications
  local name=$1 known=$2 iters=$3 reps=$4
  want "$name" || return
  local xr="$data/$name/$name.xread"
  local taxa; taxa=$(awk 'NR<=6 && /^[0-9]+ [0-9]+/{print $2; exit}' "$xr")
  local out rbest rsecs tbest tsecs total rate
  out=$( { /usr/bin/time -f "CPU %U" "$qax" "mxram 3000, proc $xr, hold 1000, rseed 1, ratchet: iter $iters findscore $known, mult=replic 1 tbr hold 1 ratchet, quit," ; } 2>&1 )
  rbest=$(sed -n 's/^Best score (TBR): \([0-9.]*\)\..*/\1/p' <<<"$out")
  rsecs=$(cpu "$out")
  out=$( { /usr/bin/time -f "CPU %U" "$qax" "mxram 3000, proc $xr, hold 1000, rseed 1, mult=replic $reps tbr hold 1, quit," ; } 2>&1 )
  tbest=$(sed -n 's/^Best score (TBR): \([0-9.]*\)\..*/\1/p' <<<"$out")
  total=$(sed -n 's/^Total rearrangements examined: \([0-9]*\)\./\1/p' <<<"$out")
  tsecs=$(cpu "$out")
  rate="-"
  if [ "$(echo "$tsecs >= 0.2" | bc -l)" = 1 ]; then rate=$(printf "%.0f" "$(echo "$total / $tsecs" | bc -l)"); fi
  printf "%-16s %5s %6s | %8s %8.2f | %8s %8.2f %14s\n" "$name" "$taxa" "$known" "${rbest:-?}" "${rsecs:-0}" \
    "${tbest:-?}" "${tsecs:-0}" "$rate"
}
known_of() { awk -v n="$1" '$1 == n {print $2}' <<'EOF'
Longrich2010 128
Asher2005 341
Wills2012 268
Conrad2008 1704
primates 1153
woodmouse 68
cynmix 5320
Laurasiatherian 9713
chloroplast 11064
rrna150 8471
rbcl500 16531
dna2000 74613
EOF
}
one Longrich2010 128 100 10
one Asher2005 341 100 10
one Wills2012 268 200 10
one Conrad2008 1704 200 10
one primates 1153 100 10
one woodmouse 68 100 10
one cynmix 5320 200 10
one Laurasiatherian 9713 200 10
one chloroplast 11064 100 10
one rrna150 8471 500 10
one rbcl500 16531 1000 10
one dna2000 74613 1000 4

# ---- peers ---------------------------------------------------------------------------
# Sequences of an xread file as "name sequence" lines (gaps as missing).
rows() { awk '/^&\[/{on=1; next} on && /^;/{exit} on && NF==2 {s=$2; gsub(/-/, "?", s); print $1, s}' "$1"; }
phylip_cmd() {  # program name -> command line, or nothing
  if command -v "$1" >/dev/null 2>&1; then echo "$1"; elif command -v phylip >/dev/null 2>&1; then echo "phylip $1"; fi
}
peer_names="primates woodmouse Laurasiatherian chloroplast rrna150 rbcl500 dna2000"
dnapars=$(phylip_cmd dnapars)
have_r=0
if command -v Rscript >/dev/null 2>&1 && Rscript -e 'suppressMessages(library(phangorn))' >/dev/null 2>&1; then have_r=1; fi
if [ -n "$dnapars" ] || [ "$have_r" = 1 ]; then
  echo
  printf "%-16s | %8s %8s | %8s %8s | %8s %8s %8s\n" matrix dnapars "s" pratchet "s" "target" "qax" "CPU s"
  for name in $peer_names; do
    want "$name" || continue
    xr="$data/$name/$name.xread"
    w=$(mktemp -d)
    rows "$xr" > "$w/rows"
    protein=0; grep -q '^&\[prot' "$xr" && protein=1
    dl="-"; dt="-"; pl="-"; pt="-"; res=""
    if [ -n "$dnapars" ] && [ "$protein" = 0 ]; then
      # Sequential infile with 10-character names; the menu answer Y accepts the defaults.
      awk '{n++; seq[n]=$2} END{printf "%d %d\n", n, length(seq[1]); for(i=1;i<=n;i++) printf "T%09d%s\n", i, seq[i]}' "$w/rows" > "$w/infile"
      t0=$(date +%s.%N)
      (cd "$w" && printf "Y\n" | timeout "$peer_timeout" $dnapars >/dev/null 2>&1) || true
      t1=$(date +%s.%N)
      dl=$(sed -n 's/.*requires a total of *\([0-9.]*\).*/\1/p' "$w/outfile" 2>/dev/null | sort -n | head -1)
      dl=${dl%.000}; dl=${dl:-"?"}
      dt=$(printf "%.2f" "$(echo "$t1 - $t0" | bc -l)")
      rm -f "$w/outfile" "$w/outtree"
    fi
    if [ "$have_r" = 1 ]; then
      awk '{printf ">%s\n%s\n", $1, $2}' "$w/rows" > "$w/seq.fasta"
      type=DNA; [ "$protein" = 1 ] && type=AA
      res=$(timeout "$peer_timeout" Rscript -e "suppressMessages(library(phangorn)); set.seed(1);
        d <- read.phyDat('$w/seq.fasta', format='fasta', type='$type');
        t <- system.time(tr <- pratchet(d, trace=0))[['elapsed']];
        cat(parsimony(tr, d), t, '\n')" 2>/dev/null)
      # The last line holds "length seconds"; anything else (an error, a timeout) gives "?".
      res=$(tail -1 <<<"$res")
      if [[ "$res" =~ ^[0-9]+\ [0-9.]+ ]]; then pl=$(awk '{print $1}' <<<"$res"); pt=$(awk '{printf "%.2f", $2}' <<<"$res"); fi
      pl=${pl:-"?"}; pt=${pt:-"-"}
    fi
    # qax aimed at the shortest of the peers' lengths and the known one.
    target=$(known_of "$name")
    for v in "$dl" "$pl"; do
      if [[ "$v" =~ ^[0-9]+$ ]] && [ "$v" -lt "$target" ]; then target=$v; fi
    done
    out=$( { /usr/bin/time -f "CPU %U" "$qax" "mxram 3000, proc $xr, hold 1000, rseed 1, ratchet: iter 5000 findscore $target, mult=replic 1 tbr hold 1 ratchet, quit," ; } 2>&1 )
    qb=$(sed -n 's/^Best score (TBR): \([0-9.]*\)\..*/\1/p' <<<"$out")
    printf "%-16s | %8s %8s | %8s %8s | %8s %8s %8.2f\n" "$name" "$dl" "$dt" "$pl" "$pt" "$target" "${qb:-?}" "$(cpu "$out")"
    rm -rf "$w"
  done
fi
