#!/usr/bin/env bash
# Robinson-Foulds distances of tcomp agree with those computed by R's ape package on
# random trees (binary, and with polytomies from collapsed branches), written by R and
# read by the program. Skips where R with ape is not installed.
#   bash rf_ape.test.sh QAX_BINARY DATA_DIR
set -u
qax=$(realpath "$1")
if ! command -v Rscript >/dev/null || ! Rscript -e 'library(ape)' >/dev/null 2>&1; then
  echo "R with ape not installed: Robinson-Foulds distances not compared"
  exit 0
fi
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
export HOME="$work"
fail=0
for n in 6 13 40; do
  pairs=12
  # R writes 2 x pairs random unrooted trees and the distance of tree i to tree i+pairs.
  Rscript - "$n" "$pairs" >r.txt 2>&1 <<'REOF' || { echo "R failed"; cat r.txt; exit 1; }
library(ape)
a <- commandArgs(TRUE); n <- as.integer(a[1]); p <- as.integer(a[2])
set.seed(n)
labels <- paste0("t", 0:(n - 1))
trees <- lapply(seq_len(2 * p), function(i) {
  t <- unroot(rtree(n, tip.label = sample(labels)))
  # Every third tree loses some of its branches, as polytomies.
  if (i %% 3 == 0) {
    inner <- which(t$edge[, 2] > n)
    t$edge.length[sample(inner, length(inner) %/% 3)] <- 0
    t <- di2multi(t)
  }
  t$edge.length <- NULL
  t
})
class(trees) <- "multiPhylo"
write.tree(trees, "random.tre")
d <- sapply(seq_len(p), function(i) dist.topo(trees[[i]], trees[[i + p]]))
writeLines(format(d), "ape.txt")
REOF
  {
    echo "xread"; echo "1 $n"
    for ((t = 0; t < n; t++)); do echo "t$t $((t % 2))"; done
    echo ";"
  } >data.xread
  cmds="proc data.xread; proc random.tre; macro=;"
  for ((i = 0; i < pairs; i++)); do
    cmds+=" tcomp < $i / $((i + pairs)); set 0 rfdist * $((2 * (n - 3))); quote RF '0';"
  done
  "$qax" "$cmds quit;" >/dev/null 2>log.txt </dev/null
  grep '^RF ' log.txt | awk '{print $2}' >qax.txt
  if [ "$(wc -l <qax.txt)" != "$pairs" ]; then
    echo "$n taxa: the program gave $(wc -l <qax.txt) distances for $pairs pairs"; tail -20 log.txt; fail=1; continue
  fi
  if ! paste qax.txt ape.txt | awk '{ d = $1 - $2; if (d < -0.001 || d > 0.001) { print "pair " NR-1 ": " $1 " against " $2; bad = 1 } } END { exit bad }'; then
    echo "$n taxa: distances differ from ape's"; fail=1
  fi
done
exit $fail
