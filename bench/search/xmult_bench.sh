#!/usr/bin/env bash
# xmult benchmark: for each large matrix, the best length and CPU seconds of one xmult
# command per seed (default settings, and levels given in LEVELS), beside the ratchet alone
# (mult with one replication and the ratchet, iterations until the known best length is
# found or the budget is spent).
#   usage: bench/search/xmult_bench.sh [qax binary] [data folder] [matrix ...]
#   SEEDS="1 2 3 4 5" LEVELS="default 1 2 3" RATCHET_ITER=200 by default; RATCHET_SEEDS (default:
#   all of SEEDS) limits the seeds of the slower ratchet runs ("-" where not run).
set -u
qax=${1:-$(dirname "$0")/../../build/qax}
data=${2:-/work/shared/data}
shift 2 2>/dev/null || shift $#
matrices=${*:-"rrna150 rbcl500 dna2000"}
seeds=${SEEDS:-"1 2 3 4 5"}
levels=${LEVELS:-"default 1 2 3"}
ratchet_iter=${RATCHET_ITER:-200}
ratchet_seeds=" ${RATCHET_SEEDS:-$seeds} "
known_of() { case $1 in rrna150) echo 8471 ;; rbcl500) echo 16531 ;; dna2000) echo 74610 ;; *) echo 0 ;; esac; }
cpu() { sed -n 's/^CPU \([0-9.]*\)$/\1/p' <<<"$1"; }

printf "%-10s %6s %-10s %5s | %8s %8s | %8s %8s\n" matrix known settings seed "xmult" "CPU s" "ratchet" "CPU s"
declare -A reached runs cpu_sum
for m in $matrices; do
  xr="$data/$m/$m.xread"
  known=$(known_of "$m")
  for seed in $seeds; do
    rbest="-"; rsecs=0
    if [[ "$ratchet_seeds" == *" $seed "* ]]; then
      out=$( { /usr/bin/time -f "CPU %U" "$qax" "mxram 3000, proc $xr, hold 1000, rseed $seed, ratchet: iter $ratchet_iter findscore $known, mult=replic 1 tbr hold 1 ratchet, quit," ; } 2>&1 )
      rbest=$(sed -n 's/^Best score (TBR): \([0-9.]*\)\..*/\1/p' <<<"$out")
      rsecs=$(cpu "$out")
    fi
    for lv in $levels; do
      opts=""
      [ "$lv" != default ] && opts="level $lv"
      out=$( { /usr/bin/time -f "CPU %U" "$qax" "mxram 3000, proc $xr, hold 1000, rseed $seed, xmult=$opts, quit," ; } 2>&1 )
      best=$(sed -n 's/^Best score: \([0-9.]*\)\..*/\1/p' <<<"$out")
      secs=$(cpu "$out")
      printf "%-10s %6s %-10s %5s | %8s %8.2f | %8s %8.2f\n" "$m" "$known" "$lv" "$seed" "${best:-?}" "${secs:-0}" \
        "${rbest:-?}" "${rsecs:-0}"
      key="$m $lv"
      runs[$key]=$(( ${runs[$key]:-0} + 1 ))
      [ -n "$best" ] && [ "${best%.*}" -le "$known" ] && reached[$key]=$(( ${reached[$key]:-0} + 1 ))
      cpu_sum[$key]=$(echo "${cpu_sum[$key]:-0} + ${secs:-0}" | bc)
    done
  done
done
# Per matrix and settings: seeds that reached the known best length, and the mean CPU time.
echo
printf "%-10s %-10s %14s %10s\n" matrix settings "reached known" "mean CPU s"
for m in $matrices; do
  for lv in $levels; do
    key="$m $lv"
    printf "%-10s %-10s %9s of %-2s %10.2f\n" "$m" "$lv" "${reached[$key]:-0}" "${runs[$key]:-0}" \
      "$(echo "${cpu_sum[$key]:-0} / ${runs[$key]:-1}" | bc -l)"
  done
done
