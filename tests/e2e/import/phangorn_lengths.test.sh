#!/usr/bin/env bash
# Lengths agree with an independent program: the trees of a search on DNA and protein
# matrices are
# exported with their data as NEXUS, and R (ape reads the file, phangorn scores the trees
# by Fitch parsimony) must give every tree the length the program reports. Skips with a
# message where R with phangorn is not installed.
#   bash phangorn_lengths.test.sh QAX_BINARY DATA_DIR
set -u
qax=$(realpath "$1"); data=$(realpath "$2")
if ! command -v Rscript >/dev/null || ! Rscript -e 'suppressMessages(library(phangorn))' >/dev/null 2>&1; then
  echo "SKIP: R with phangorn not installed"
  exit 0
fi
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
export HOME="$work"
fail=0
for m in woodmouse primates chloroplast rbcl500; do
  rm -f t.nex
  # The lengths as the program reports them: the rows of the "Tree lengths" table.
  ours=$("$qax" "proc $data/$m.xread; rseed 3; mult=replic 2 hold 4; length; export + t.nex; quit;" 2>&1 </dev/null |
    awk '/^Tree lengths/ {on = 1; getline; next} on && NF > 1 && $1 ~ /^[0-9]+$/ {for (i = 2; i <= NF; i++) printf "%s ", $i; next} on {on = 0}')
  theirs=$(Rscript - 2>&1 <<'REOF'
suppressMessages(library(phangorn))
d <- read.nexus.data("t.nex"); t <- read.nexus("t.nex")
p <- phyDat(d, type = if (any(grepl("DATATYPE=PROTEIN", readLines("t.nex")))) "AA" else "DNA")
tr <- if (inherits(t, "multiPhylo")) t else list(t)
cat(sapply(tr, function(x) parsimony(x, p)), "")
REOF
)
  if [ -z "$ours" ] || [ "$(echo $ours)" != "$(echo $theirs)" ]; then
    echo "$m: lengths here [$(echo $ours)], in R [$(echo $theirs)]"
    fail=1
  fi
done
exit $fail
