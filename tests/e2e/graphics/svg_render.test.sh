#!/usr/bin/env bash
# A diagram with supports is well-formed XML and, where a browser is installed, renders
# to a picture that is not blank.
#   bash svg_render.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1; data=$2
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
"$qax" "proc $data/Longrich2010.xread; rseed 1; mult=rep 3 hold 10; ttags=; resample jak replications 10 from 0 frequency gc; ttags[; ttags &plain.svg; ttags &colour.svg colors italics caption Jackknife & GC <tree 0>; quit;" \
  >/dev/null 2>err.txt </dev/null
fail=0
for f in plain.svg colour.svg; do
  [ -s "$f" ] || { echo "$f not written"; fail=1; continue; }
  # Well-formed XML, checked by a real parser.
  python3 -c "import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])" "$f" || { echo "$f is not well-formed XML"; fail=1; }
  grep -q '<svg width="[0-9]*" height="[0-9]*" xmlns="http://www.w3.org/2000/svg">' "$f" || { echo "$f: no svg element"; fail=1; }
  tail -c 13 "$f" | grep -q '</g>' || { echo "$f: not closed"; fail=1; }
done
# Values on branches in the plain diagram; in colour mode a tag of two joined values is
# ambiguous (gray branches, no legend).
grep -q '<text filter="url(#solid)"' plain.svg || { echo "plain.svg: no branch legends"; fail=1; }
grep -q 'stroke="gray"' colour.svg || { echo "colour.svg: no gray branches"; fail=1; }
browser=$(command -v chromium || command -v chromium-browser || true)
if [ -n "$browser" ] && [ "$fail" = 0 ]; then
  timeout 60 "$browser" --headless --no-sandbox --disable-gpu --screenshot="$work/shot.png" --window-size=600,500 \
    "file://$work/plain.svg" >/dev/null 2>&1
  if [ -s shot.png ]; then
    # Not blank: enough pixels differ from the background.
    python3 - shot.png <<'PY' || { echo "rendered picture is blank"; fail=1; }
import sys, zlib, struct
data = open(sys.argv[1], 'rb').read()
pos, idat, width, height, ctype = 8, b'', 0, 0, 0
while pos < len(data):
    n, kind = struct.unpack('>I4s', data[pos:pos + 8])
    body = data[pos + 8:pos + 8 + n]
    if kind == b'IHDR':
        width, height, depth, ctype = struct.unpack('>IIBB', body[:10])
    elif kind == b'IDAT':
        idat += body
    pos += 12 + n
raw = zlib.decompress(idat)
bpp = {2: 3, 6: 4, 0: 1, 4: 2}.get(ctype, 4)
stride = width * bpp
# Undo the row filters to get the pixels.
prev = bytearray(stride)
pixels = []
pos = 0
for y in range(height):
    ftype = raw[pos]; row = bytearray(raw[pos + 1:pos + 1 + stride]); pos += 1 + stride
    for i in range(stride):
        a = row[i - bpp] if i >= bpp else 0
        b = prev[i]
        c = prev[i - bpp] if i >= bpp else 0
        if ftype == 1: row[i] = (row[i] + a) & 255
        elif ftype == 2: row[i] = (row[i] + b) & 255
        elif ftype == 3: row[i] = (row[i] + (a + b) // 2) & 255
        elif ftype == 4:
            p = a + b - c; pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
            row[i] = (row[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
    pixels.append(row)
    prev = row
# Not blank: some pixels differ from the background (the top-left pixel), and enough of
# them to be lines and text rather than a stray dot.
background = bytes(pixels[0][:bpp])
drawn = sum(1 for r in pixels for x in range(0, stride, bpp) if bytes(r[x:x + bpp]) != background)
sys.exit(0 if drawn > 200 else 1)
PY
  else
    echo "browser produced no picture"; fail=1
  fi
else
  [ -z "$browser" ] && echo "no chromium installed: rendering not checked" >&2
fi
[ "$fail" = 0 ] || tail -20 err.txt
exit $fail
