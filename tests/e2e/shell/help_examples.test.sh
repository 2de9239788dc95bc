#!/usr/bin/env bash
# Every form that the help texts show is run, with its placeholders filled in, on a small
# data set with trees in memory: none may fail, except commands that say they are not
# available yet and forms listed below with the reason they can't run here.
#   bash help_examples.test.sh QAX_BINARY DATA_DIR
set -u
qax=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
if ! command -v python3 >/dev/null 2>&1; then
  echo "SKIP: python3 not installed"
  exit 0
fi
python3 - "$qax" <<'PY'
import os, re, shutil, subprocess, sys, tempfile

qax = sys.argv[1]
SETUP = """macro=;
xread 6 8
a 000000
b 001101
c 011110
d 111010
e 110111
f 100011
g 101100
h 010001
;
tread (a (b (c (d (e (f (g h))))))) * (a (c (b (d (e (f (g h))))))) * (a (b (c (e (d (f (h g)))))));
"""
FILES = {
    "hx.run": "quote read from hx.run;\nproc/;\n",
    "hx.tre": "tread (a (b (c (d (e (f (g h)))))));\nproc/;\n",
    "hx.fas": ">a\nACGT\n>b\nACGA\n>c\nACTT\n>d\nAGTT\n",
    "hx.nwk": "(a,(b,(c,(d,(e,(f,(g,h)))))));\n",
    "hx.lab": "label here;\nquote jumped;\nproc/;\n",
}

# Forms that need more than their placeholders filled in.
EXAMPLES = {
    "blocks N0 N1 ...": "blocks 0 3",
    "blocks = name1 name2 ...": "blocks 0 3; blocks = second",
    "blength >N/L": "nstates 32; xread 1 4\n&[cont]\na 1\nb 2\nc 3\nd 4\n;\ntread (a (b (c d))); blength >",
    "blength <N/L": "nstates 32; xread 1 4\n&[cont]\na 1\nb 2\nc 3\nd 4\n;\ntread (a (b (c d))); blength <",
    "cdir name": "cdir .",
    "change [ list ]": "change 0/0/0 1",
    "cnames { N name states": "cnames {0 first zero one; ;",
    "condense /": "condense /0 10",
    "constrain =": "force + [a b]; constrain =",
    "constrain /": "force + [a b]; constrain /",
    "costs list = s>t cost s/t cost ...": "costs 0 = 0>1 1 1>0 2",
    "cstree N = (drawing on the next lines)": "cstree 0 =\n    0\n   / \\\n  1   2\n",
    "cstree N <C ...": "cstree 0 <1 =\n    0\n   / \\\n  1   2\n",
    "costs <": "xwipe; costs <",
    "costs >": "xwipe; costs >",
    "mxram * P": "mxram * 2",
    "procedure & name": "procedure & hx.fas",
    "procedure [ name": "procedure [ hx.nwk",
    "sort = mono": "force + [a b]; sort = mono",
    "tsave file+": "tsave hx.out+",
    "tsave file": "tsave hx.out",
    "tsave *file": "tsave *hx.out",
    "tsave = file": "tsave = hx.out",
    "tsave !T file": "tsave !10 hx.out",
    "xread N_chars N_taxa  name states ...": "xread 2 4 a 00 b 01 c 10 d 11",
    "xread <T P L": "xread <0 50 1",
    "resols [ list ]": "collapse -; resols",
    "export > file [trees]": "export > hx.nex 0",
    "export * file [trees]": "export * hx.nex 0",
    "export + file [trees]": "export + hx.nex 0",
    "help name": "help xread",
    "hybrid X Y/Z": "hybrid 0 1/10",
    "hybrid +N (*N)": "hybrid +2",
    "mono [ list ]": "force + [a b]; mono",
    "prunmajor [ list ]": "prunmajor 0",
    "prupdn [ list ]": "agroup =0 (pool) f g h; prupdn 0 1",
    "qnelsen [ options ]": "qnelsen rep 2 [mult=rep 1 hold 1;]",
    "resample [ options ] [ search commands ] / taxa": "resample rep 2",
    "rfreqs [J] [ list ]": "rfreqs [0] 1 2",
    "save [ list ]": "tsave hx.out; save; tsave /",
    "silent = words": "silent = all",
    "silent - words": "silent - all",
    "smatrix =N ( name ) s>t cost ...": "smatrix =0 (sm) 0>1 1 1>0 2",
    "smatrix +name list": "smatrix =0 (sm) 0>1 1 1>0 2; smatrix +sm 0",
    "sprdiff [*] J K [ NxS ]": "sprdiff 0 1",
    "sprdiff options": "sprdiff 0 1",
    "svtxt A B": "log hx.log; svtxt 0 1; log /",
    "svtxt": "log hx.log; svtxt; log /",
    "taxname +N": "taxname +40",
    "tcomp list": "tcomp 0 1",
    "tfuse / N D R": "tfuse / 11 0 1",
    "subopt N x R": "subopt 2 x 0.5",
    "xpiwe /NxF L": "xpiwe /1x0.5 0 1",
    "timeout h:m:s": "timeout 1:00:00; timeout 0",
    "tplot = L T R B": "tplot = < / < \\",
    "piwe [": "piwe [ 1 0.8 0.5 0.3 0.1; piwe [",
    "piwe <R N": "piwe <5 3",
    "tread trees": "tread (a (b (c (d (e (f (g h)))))))",
    "tsave /": "tsave hx.out; tsave /",
    "ttags": "ttags =; majority; ttags",
    "ttags +N txt": "ttags -; ttags *0; ttags +9 txt",
    "ttags <N": "ttags =; majority; ttags <0",
    "ttags /": "ttags =; majority; ttags /",
    "ttags &file [ options ]": "ttags =; majority; ttags &hx.svg",
    "ttags &+ text X Y txt": "ttags =; majority; var : xy[40]; ttags &hx.svg xysave xy; ttags &+ text 10 10 hello; ttags &",
    "ttags &": "ttags =; majority; var : xy[40]; ttags &hx.svg xysave xy; ttags &",
    "txtsize N": "txtsize 20",
    "view file": "view hx.run",
    "xread = C T S ...": "xread = 0 a 1 1 b 0",
    "xread =! C T S ...": "xread =! 0 a 1",
    "xread = ? Pc Pt": "xread = ? 50 20",
    "xread /C T N": "xread /10 8 3",
    "xread >L": "ttags =; nelsen; ttags -; ttags *0; ttags +9 0.1; xread >0",
    "usminmax min list = M ...": "usminmax min 0 = 0",
    "usminmax max list = S ...": "usminmax max 0 = 3",
    "bandb actions stop": "var : n; set n 0; bandb set n ++; stop",
    "combine X min/max varname ... endcomb": "var : v[4]; combine 4 1/2 v endcomb",
    "continue": "loop 1 2 continue; stop",
    "cutbranch": "bandb cutbranch; stop",
    "else": "if (1) quote one; else quote two; end",
    "end": "if (1) quote one; end",
    "endbranch": "bandb endbranch; stop",
    "endloop": "loop 1 3 endloop; stop",
    "endswap": "sprit 0 endswap; stop",
    "errmsg text": None,
    "goto fname L [ args ]": "goto hx.lab here",
    "hifile name": "hifile hx.run; hifile",
    "if ( cond ) actions [ else actions ] end": "if (1) quote yes; else quote no; end",
    "iterrecs T C [&] [/N] [\\N] [*D] [+] var actions endrecs": "var : st[16]; iterrecs 0 0 st endrecs",
    "killfiles": "forfiles hx.* killfiles; stop",
    "label L": "label here",
    "loop X+Z Y actions stop": "loop 1+1 4 quote #1; stop",
    "maketable name title": "var : t[4]; setarray 4 t 1 2 3 4; maketable t title",
    "maketable + name": "var : t[40]; maketable + t; length; maketable -",
    "maketable -": "var : t[40]; maketable + t; maketable -",
    "progress N M text": "report -; progress 1 2 working",
    "recurse arguments": None,
    "resetswap": "var : n; set n 0; sprit 0 set n ++; if ('n' == 2) resetswap; end if ('n' > 4) endswap; end stop",
    "set var expression": "var : x; set x 2 + 3",
    "setarray dims name values": "var : t[2]; setarray 2 t 1 2",
    "setloop N": "loop 1 5 setloop 6; stop",
    "sprit T actions stop": "sprit 0 stop",
    "tbrit T actions stop": "tbrit 0 stop",
    "travtree type T N varname actions endtrav": "var : n; travtree up 0 9 n endtrav",
    "var: names": "var : one two",
    "chkbreak N": "chkbreak 1",
    "copytree N": "copytree 0",
}
# Forms that can't run in a test: why.
CANNOT = {
    "errmsg text": "fails by design",
    "recurse arguments": "needs a file that stops its own recursion",
    "quit": "ends the run",
    "exit": "ends the run",
    "pause": "waits for a key",
    "pause N": "waits for a key",
    "zzz": "ends the run",
    "procedure /": "closes the test's own file",
    "run": "closes the test's own file",
    "return N": "closes the test's own file",
    "view": "waits for keys at the terminal",
    "view +": "waits for keys at the terminal",
    "view -": "waits for keys at the terminal",
    "view : text": "waits for keys at the terminal",
    "edit [ tree ]": "interactive",
    "shortread file": "needs a compact tree file",
}

def entries(text):
    out, cur = {}, None
    for line in text.split("\n"):
        s = line.strip()
        if re.fullmatch(r"[A-Z+*]+", s):
            cur = s.lower()
            out[cur] = []
        elif cur is not None:
            if not s:
                cur = None
            else:
                out[cur].append(line)
    return out

def forms_of(name, lines):
    forms, expect_form = [], True
    for seg in "\n".join(lines).split(";"):
        last = seg.split("\n")[-1].strip()
        if expect_form:
            if last.startswith(name):
                forms.append(last)
                expect_form = False
        else:
            expect_form = True
    return forms

def alternatives(form):
    # "collapse tbr / spr", "help !N / help >N" and "sort = score | nodes": one form per
    # alternative, when each is a single word or a whole form.
    for sep in (" / ", " | "):
        if sep in form and "[" not in form:
            parts = form.split(sep)
            word = form.split(" ")[0]
            if not all(" " not in p or p.startswith(word) for p in parts[1:]):
                continue
            first = parts[0]
            prefix = first.rsplit(" ", 1)[0] if " " in first else first
            out = [first]
            for p in parts[1:]:
                out.append(p if p.split(" ")[0].startswith(first.split(" ")[0][:3]) else prefix + " " + p)
            return out
    return [form]

def fill(form):
    e = re.sub(r"\[ [^\]]*\]", "", form)
    e = e.replace("N/L", "0/0").replace("T/C", "0/0")
    e = re.sub(r"\blist\b", "0", e)
    e = re.sub(r"\b(file|fname|name|files)\b", "hx.run", e)
    e = re.sub(r"\btext\b", "hello", e)
    e = re.sub(r"\b[NTCLKMJD]\b", "1", e)
    e = re.sub(r"\boptions\b", "", e)
    return e

help_text = subprocess.run([qax, "help*; quit;"], capture_output=True, text=True).stderr
failures, runs, skipped = [], 0, 0
for name, lines in entries(help_text).items():
    for form in forms_of(name, lines):
        for alt in alternatives(form):
            if alt in CANNOT or EXAMPLES.get(alt, "") is None:
                skipped += 1
                continue
            example = EXAMPLES.get(alt) or fill(alt)
            d = tempfile.mkdtemp()
            for f, body in FILES.items():
                open(os.path.join(d, f), "w").write(body)
            open(os.path.join(d, "s.run"), "w").write(SETUP + example + ";\nquit;\n")
            try:
                r = subprocess.run([qax, "proc s.run;"], cwd=d, capture_output=True, text=True, timeout=60,
                                   stdin=subprocess.DEVNULL, env={**os.environ, "HOME": d})
                out, code = r.stderr, r.returncode
            except subprocess.TimeoutExpired:
                out, code = "timed out", -1
            shutil.rmtree(d)
            runs += 1
            if "not available yet" in out:
                skipped += 1
                continue
            if "Error reading" in out or code != 0:
                lines_out = out.strip().split("\n")
                at = [i for i, l in enumerate(lines_out) if "Error reading" in l]
                why = lines_out[at[0] - 1].strip() if at and at[0] > 0 else lines_out[-1].strip()
                failures.append(f"{alt!r} as {example!r}: {why} (exit {code})")
print(f"{runs} help forms run, {skipped} skipped (not available yet or listed), {len(failures)} failed")
for f in failures:
    print("FAIL:", f)
sys.exit(1 if failures else 0)
PY
