#!/usr/bin/env bash
# Trees leave the program as Newick and as NEXUS and come back identical: the trees of
# a search on each bundled matrix (and a majority-rule consensus with its frequencies)
# are exported, read again by the program, and saved in the program's own notation,
# which must equal the notation saved before the export. Where R with ape is
# installed, R reads both files: the trees must be the same trees in the two files,
# the consensus frequencies arrive as node labels, and trees written by R are read
# back by the program to the same trees again.
set -u
qax=$(realpath "$1"); data=$(realpath "$2")
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
export HOME="$work"
fail=0
# Saved trees without their title line (which names the data set).
same() { cmp -s <(tail -n +2 "$1") <(tail -n +2 "$2"); }
run() { "$qax" "$1" >/dev/null 2>>log.txt </dev/null; }
for m in Longrich2010 Asher2005 woodmouse primates Wills2012; do
  rm -f *.tre *.nex *.txt
  run "proc $data/$m.xread; rseed 1; mult=replic 3 hold 20; majority *; tsave *before.tre; save; tsave/; export > out.tre; export * out.nex; export + full.nex; quit;"
  run "proc $data/$m.xread; proc out.tre; tsave *newick.tre; save; tsave/; quit;"
  run "proc $data/$m.xread; proc out.nex; tsave *nexus.tre; save; tsave/; quit;"
  run "proc full.nex; tsave *full.tre; save; tsave/; quit;"
  for got in newick nexus full; do
    if ! same before.tre $got.tre; then echo "$m: trees read back from the $got export differ"; diff before.tre $got.tre | head -5; fail=1; fi
  done
  n=$(grep -c ';' out.tre)
  [ "$n" -ge 2 ] || { echo "$m: only $n trees exported"; fail=1; }
  tail -n 1 out.tre | grep -q ')[0-9]' || { echo "$m: the consensus lacks its frequencies: $(tail -n 1 out.tre)"; fail=1; }
  if command -v Rscript >/dev/null && Rscript -e 'library(ape)' >/dev/null 2>&1; then
    Rscript - >r.txt 2>&1 <<'REOF' || { echo "$m: R failed"; cat r.txt; fail=1; }
library(ape)
a <- read.tree("out.tre"); b <- read.nexus("out.nex"); f <- read.nexus("full.nex")
stopifnot(length(a) == length(b), length(a) == length(f) + 0)
for (i in seq_along(a)) {
  stopifnot(all.equal(a[[i]], b[[i]], use.edge.length = FALSE))
  stopifnot(all.equal(a[[i]], f[[i]], use.edge.length = FALSE))
}
last <- a[[length(a)]]
stopifnot(any(nchar(last$node.label) > 0), all(as.numeric(last$node.label[nchar(last$node.label) > 0]) <= 100))
write.tree(a, "fromr.tre")
write.nexus(b, file = "fromr.nex")
REOF
    run "proc $data/$m.xread; proc fromr.tre; tsave *fromr.tre; save; tsave/; quit;"
    same before.tre fromr.tre || { echo "$m: trees written by R read back differently"; fail=1; }
    run "proc $data/$m.xread; proc fromr.nex; tsave *fromrn.tre; save; tsave/; quit;"
    same before.tre fromrn.tre || { echo "$m: NEXUS trees written by R read back differently"; fail=1; }
  else
    echo "R with ape not installed: skipping the checks in R"
  fi
done
[ "$fail" = 0 ] || { echo "--- log"; tail -30 log.txt; }
exit $fail
