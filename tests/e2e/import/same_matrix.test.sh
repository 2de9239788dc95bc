#!/usr/bin/env bash
# Every matrix read from NEXUS, FASTA or PHYLIP must equal the matrix of the xread
# file given with it: both are exported as NEXUS and the files compared. The NEXUS
# written is then read again and must export to the same text (round trip).
# Uses tests/data, and the full set of real data sets when shared/data is beside
# the repository.
set -u
qax=$(realpath "$1"); data=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
export HOME="$work"
pass=0; fail=0
check() {  # check NAME native-file xread-file
  local name=$1 native=$2 ref=$3 how="proc"
  case $native in *.fasta|*.fa) how="proc &";; esac
  ln -sf "$native" "in_$name.${native##*.}"; ln -sf "$ref" "ref_$name.xread"
  rm -f x.nex n.nex r.nex
  "$qax" "proc ref_$name.xread; export x.nex; $how in_$name.${native##*.}; export n.nex; proc n.nex; export r.nex; quit;" \
    >/dev/null 2>"log_$name.txt" </dev/null
  if [ -s x.nex ] && cmp -s x.nex n.nex && cmp -s n.nex r.nex; then
    pass=$((pass + 1))
  else
    echo "FAIL: $native differs from $ref (or did not round-trip)"; tail -5 "log_$name.txt"; fail=$((fail + 1))
  fi
}
for f in "$data"/*.nex "$data"/*.phy "$data"/*.fasta; do
  [ -e "$f" ] || continue
  ref="${f%.*}.xread"
  [ -e "$ref" ] && check "$(basename "${f%.*}")" "$f" "$ref"
done
shared="$here/../../../../shared/data"
[ -d "$shared" ] || shared=/work/shared/data
if [ -d "$shared" ]; then
  for f in "$shared"/*/*.nex "$shared"/*/*.phy "$shared"/*/*.fasta; do
    [ -e "$f" ] || continue
    ref="${f%.*}.xread"
    [ -e "$ref" ] && check "shared_$(basename "${f%.*}")" "$f" "$ref"
  done
fi
echo "import same_matrix: $pass passed, $fail failed"
[ "$fail" -eq 0 ]
