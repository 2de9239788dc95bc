#!/usr/bin/env bash
# Exact search benchmark: ienum on the first N taxa of bundled morphological matrices
# (the others switched off with taxcode). Prints the best score, the number of optimal
# trees and the CPU time of each run.
#   usage: bench/search/ienum_bench.sh [qax binary] [data folder]
set -u
qax=${1:-$(dirname "$0")/../../build/qax}
data=${2:-/work/shared/data}
printf "%-14s %5s | %6s %7s %8s\n" matrix taxa score trees "CPU s"
one() {  # name taxa (0: all)
  local name=$1 n=$2 xr="$data/$1/$1.xread" sel="" out
  [ "$n" -gt 0 ] && sel="taxcode - $n.,"
  out=$( { /usr/bin/time -f "CPU %U" "$qax" "mxram 1000, proc $xr, $sel hold 100000, ienum, quit," ; } 2>&1 )
  local score trees secs
  score=$(sed -n 's/^Implicit enumeration, \([0-9]*\) trees found, score \([0-9.]*\).*/\2/p' <<<"$out")
  trees=$(sed -n 's/^Implicit enumeration, \([0-9]*\) trees found.*/\1/p' <<<"$out")
  score=${score%.}
  secs=$(sed -n 's/^CPU \([0-9.]*\)$/\1/p' <<<"$out")
  printf "%-14s %5s | %6s %7s %8s\n" "$name" "$([ "$n" -gt 0 ] && echo "$n" || echo all)" "${score:-?}" "${trees:-?}" "${secs:-?}"
}
one Longrich2010 12
one Longrich2010 16
one Longrich2010 0
one Asher2005 12
one Asher2005 16
one Asher2005 20
one Wills2012 12
one Wills2012 16
