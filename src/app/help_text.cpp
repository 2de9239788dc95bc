// Help texts: one short entry per command, shown by "help name" and "name ?".
#include "app/help_text.h"

#include <cstring>

namespace qax::app {

namespace {

struct HelpEntry {
  const char* name;  // command word
  const char* text;  // usage and options
};

const HelpEntry help_entries[] = {
    {"absincl",
     "absincl =;  taxa absent from a tree read are put at the base of the tree\n"
     "absincl -;  absent taxa are left out of trees;  absincl /;  toggle;  absincl;  report"},
    {"agroup",
     "agroup =N (name) list;  define taxon group N (0-31) with an optional name\n"
     "agroup -N;  delete group N;  agroup;  list the groups"},
    {"alltrees",
     "alltrees;  generate all trees for the active taxa (few taxa only)\n"
     "The trees replace those in memory."},
    {"ancstates",
     "ancstates list;  states of the outgroup are ancestral for the listed characters\n"
     "ancstates;  report the characters so marked"},
    {"apo",
     "apo [ N/L ];  changes on every best reconstruction, by branch, of trees N (characters L)\n"
     "apo- N/L;  changes common to all trees N on the same groups;  apo[ N/L;  only changes\n"
     "between single states;  apo= N/L;  also changes of some reconstructions (ambiguous);\n"
     "apo] N/L;  ambiguous changes only"},
    {"bbreak",
     "bbreak [ = options ];  branch swapping of the trees in memory\n"
     "Options: tbr, spr, [no]mulpars, [no]fillonly, [no]safe, [no]skipspr, [no]randclip,\n"
     "[no]preproc, limit N, outfreq N, [no]qcollapse; with \":\" only: clustersize N, inters N, xbits\n"
     "bbreak: options;  set options only;  bbreak:;  report settings"},
    {"beep",
     "beep =;  beep on errors;  beep -;  silent errors;  beep /;  toggle"},
    {"best",
     "best [ N ];  keep only the trees of best score (within N of the best)"},
    {"bground",
     "Command-line only: qax bground commands...\n"
     "Runs without console; report, break and beep off. Exit status: 0 after quit,\n"
     "1 when input runs out, 255 after an error."},
    {"blength",
     "blength [ N/L ];  minimum branch lengths of trees N (characters L), by node\n"
     "blength *N/L;  as trees with lengths as labels;  blength /N/L;  cost of collapsing\n"
     "each branch;  blength >N/L;  greatest increase of continuous characters on each\n"
     "branch;  blength <N/L;  greatest decrease"},
    {"blocks",
     "blocks N0 N1 ...;  define data blocks starting at the given characters\n"
     "blocks;  report the blocks;  blocks = name1 name2 ...;  name the blocks after the first (all)"},
    {"break",
     "break =;  keyboard polled at every printed line (ESC interrupts)\n"
     "break -;  not polled;  break /;  toggle\n"
     "break /text;  ask text (y/n) before interrupting (max. 254 characters)"},
    {"bsupport",
     "bsupport [ options ] [ list ] [ / taxa ];  Bremer supports from suboptimal trees in memory\n"
     "Options: =N collapse below N;  * keep the tree;  [ relative;  ] relative, within absolute\n"
     "&X[*F] or |X[*F] combined supports;  !N (!!N, !+N) by TBR swapping from tree N,\n"
     "within the suboptimal value (relative supports also within the relative one, subopt N x R)"},
    {"ccode",
     "ccode options list;  character settings\n"
     "+ additive  - nonadditive  [ active  ] inactive  ( Sankoff  ) no Sankoff\n"
     "/N weight N  =N internal steps  ! reset to file settings;  ccode;  report"},
    {"cdir",
     "cdir name;  change the current directory\n"
     "cdir;  report the current directory"},
    {"change",
     "change [ list ];  changes of each character on the given trees"},
    {"chkmoves",
     "chkmoves T [ N ];  check which taxa move between tree T and others within N steps"},
    {"chomo",
     "chomo list;  homoplasy of each character on the given trees"},
    {"ckeep",
     "ckeep;  the present character settings become those that \"ccode !\" restores"},
    {"cls",
     "cls;  clear the screen (not in background)"},
    {"clbuffer",
     "clbuffer;  clear the text buffer\n"
     "clbuffer *;  clear the command history"},
    {"cnames",
     "cnames { N name states ; ... ;  name characters and their states\n"
     "cnames;  list the names"},
    {"collapse",
     "collapse N;  level of collapsing of zero-length branches (0-6)\n"
     "collapse rule N;  rule 1 (some support), 3 (no possible support) or 4 (length kept)\n"
     "collapse + / -  temporary collapsing for consensus on / off\n"
     "collapse [ / ]  automatic condensing of search results on / off\n"
     "collapse tbr / spr / amb / none / auto / noauto;  collapse;  report"},
    {"comcomp",
     "comcomp [ list ];  combinable components (semi-strict) consensus"},
    {"condense",
     "condense [ list ];  collapse unsupported branches of the trees in memory\n"
     "condense /;  collapse without changing the trees' order"},
    {"constrain",
     "constrain =;  enforce the constraints defined with force\n"
     "constrain -;  do not enforce them;  constrain /;  toggle;  constrain;  report"},
    {"costs",
     "costs list = s>t cost s/t cost ...;  costs for the listed characters (/ both ways)\n"
     "costs *;  save all costs;  costs -;  save those of active characters\n"
     "costs [;  saved in this program's format;  costs ];  saved as a compact list;  costs <;  disallow Sankoff\n"
     "characters (before xread);  costs >;  allow them;  costs &;  exact asymmetric costs\n"
     "during TBR;  costs |;  approximate;  costs;  report"},
    {"cscores",
     "cscores [ list ];  score of each character on the given trees"},
    {"cstree",
     "cstree N = (drawing on the next lines) ;  costs of characters N from a tree of states\n"
     "cstree N <C ...  the same, costs above C made C;  cstree + / -  state trees as binary\n"
     "variables or whole characters;  cstree;  list"},
    {"dcomp",
     "dcomp file;  compare the data set in memory with another matrix"},
    {"dmerge",
     "dmerge files;  merge matrices into one data set"},
    {"drift",
     "drift [ = options ];  tree drifting from the best tree in memory: worse moves, then TBR\n"
     "Options: iter N, numsubs N, fitdiff N, rfitdiff R, xfactor N, [no]equals, giveup N,\n"
     "[no]pert, flat N, rflat R, flatnumsubs N, findscore N\n"
     "drift: options;  set options only;  drift:;  report settings"},
    {"edit",
     "edit [ tree ];  edit a tree interactively"},
    {"echo",
     "echo =;  echo each command;  echo -;  no echo\n"
     "echo [;  copy prompt and typed line to the log;  echo ];  do not"},
    {"export",
     "export file;  write the data matrix to a file in NEXUS format\n"
     "(TAXA and CHARACTERS blocks; polymorphisms in ( ), missing as ?)\n"
     "export > file [trees];  the trees (all when none named) as Newick, one a line,\n"
     "   with taxon names, quoted where needed\n"
     "export * file [trees];  the trees as NEXUS (TAXA and TREES blocks, TRANSLATE)\n"
     "export + file [trees];  the matrix and the trees in one NEXUS file\n"
     "The frequencies of a consensus kept with majority* or freqdifs* (the tags of\n"
     "the tag tree) go out as internal node labels of that tree.\n"
     "Files of other programs come in with procedure: Newick trees, NEXUS files of\n"
     "taxa and trees only (for the data in memory), FASTA, PHYLIP and NEXUS matrices."},
    {"exit",
     "exit;  end the program (cannot be abbreviated: \"ex\" is export)\n"
     "The tree file gets its closing lines; history is saved."},
    {"fit",
     "fit [ list ];  fit of characters under implied weights on the given trees"},
    {"fillsank",
     "fillsank = / - / /;  polymorphic cells of Sankoff characters take the states between\n"
     "their states (on, off, toggle)"},
    {"force",
     "force + [ taxa ];  force a group (or a taxon's position) in searches\n"
     "force -;  delete forced groups;  force;  report"},
    {"freqdifs",
     "freqdifs [ list ];  frequency differences (group supported / contradicted)"},
    {"help",
     "help;  list commands;  help name;  help on commands starting with name\n"
     "help*;  the help of every command;  help+;  macro commands and expressions\n"
     "help [ topics ];  commands on all the given topics\n"
     "help !N / help >N;  closest-string matching (threshold N);  help <;  exact match\n"
     "name ?;  shows the help of command name without running it"},
    {"hold",
     "hold N;  maximum number of trees in memory (rebuilds the tree buffer)\n"
     "hold /N;  tree vault of N trees;  hold;  report"},
    {"hybrid",
     "hybrid [ options ];  hybridize pairs of trees in memory\n"
     "Options: rounds N, hybrid N, replace, noreplace\n"
     "hybrid X Y/Z;  exchange node Z of tree X with tree Y (-X Y/Z: without completing);  hybrid +N (*N);  complete tree N (and swap)"},
    {"ienum",
     "ienum [ =N ] [ ! - & ];  implicit enumeration: exact search for the best trees"},
    {"incltax",
     "incltax list;  include only the listed taxa when reading trees"},
    {"info",
     "info;  report the data set and settings in memory"},
    {"log",
     "log name;  open a log file (log + name: append; log stdout: standard output)\n"
     "log /;  close the log;  log;  report the open log"},
    {"lintrees",
     "lintrees =;  trees saved on one line each;  lintrees -;  multiline"},
    {"keep",
     "keep N;  keep only the first N trees in memory"},
    {"kleex",
     "kleex [ options ];  search with a fixed number of taxa removed"},
    {"length",
     "length [ list ];  score of the given trees"},
    {"lik",
     "lik [ list ];  Mk likelihood of the given trees\n"
     "lik /;  log-likelihood only"},
    {"lmark",
     "lmark options;  settings of landmark characters\n"
     "lmark;  report"},
    {"lmbox",
     "lmbox list;  plot landmark configurations"},
    {"lmrealign",
     "lmrealign list;  realign landmark configurations"},
    {"lquote",
     "lquote =;  quotes are literal (no line end added);  lquote -;  normal\n"
     "lquote [;  &N in quotes writes the character of code N;  lquote ];  off\n"
     "lquote <;  quotes echoed on stderr too;  lquote >;  off"},
    {"lset",
     "lset options;  settings of the likelihood model (rates, probs, ...)"},
    {"majority",
     "majority [ =N ] [ list ];  majority-rule consensus (N percent, default 50)"},
    {"matchtax",
     "matchtax file;  match taxon names against a list"},
    {"map",
     "map [ list ];  map characters on the given trees"},
    {"minmax",
     "minmax [ list ];  minimum and maximum possible steps of characters"},
    {"mixtrees",
     "mixtrees list;  combine trees of different taxon sets"},
    {"mkmap",
     "mkmap [ list ];  map characters under the Mk model"},
    {"mono",
     "mono [ list ];  monophyly of groups in the given trees"},
    {"mrp",
     "mrp [ list ];  matrix representation of the trees in memory"},
    {"mult",
     "mult [ = options ];  random addition sequences plus branch swapping\n"
     "Options: replic N, tbr, spr, hold N, wagner, ratchet, drift\n"
     "mult: options;  set options only;  mult:;  report settings"},
    {"mxram",
     "mxram N;  size of the memory block in Mbytes (discards data and trees)\n"
     "mxram;  report memory use by region\n"
     "mxram * P;  proportion of expected memory claimed when reading data\n"
     "mxram [ / ];  datasets may / may not increase memory\n"
     "mxram + / -;  keep / do not keep 5% extra memory for searches"},
    {"mxproc",
     "mxproc N;  maximum number of input files open at once (never lowered)\n"
     "mxproc;  report"},
    {"naked",
     "naked =;  trees drawn without node numbers;  naked -;  with numbers;  naked /;  toggle"},
    {"nelsen",
     "nelsen [ list ];  strict consensus of the given trees\n"
     "nelsen *;  save the consensus as a new tree;  nelsen < / >;  more options"},
    {"nstates",
     "nstates N;  number of states (sets the cell width) for the next data set\n"
     "nstates dna / prot / num / cont;  data format"},
    {"outgroup",
     "outgroup N;  taxon N roots the trees (default 0)\n"
     "outgroup;  report"},
    {"procedure",
     "procedure file;  read commands from a file (#NEXUS files are imported)\n"
     "procedure /;  close the current file (end of a file)\n"
     "procedure & name;  read a FASTA file;  procedure [ name;  read Newick trees"},
    {"pause",
     "pause;  wait for a key;  pause N;  wait N seconds\n"
     "pause =;  stop at each screenful;  pause -;  do not"},
    {"pcrprune",
     "pcrprune [ list ];  positional congruence: find taxa that reduce resolution"},
    {"pfijo",
     "pfijo [ options ];  search with fixed parts of the tree\n"
     "Options: numsels N, phtus K, chunksize N, drift N F R, autofuse N R, goback, keepall, slack N"},
    {"piwe",
     "piwe =N;  implied weighting with concavity N;  piwe -;  equal weights\n"
     "piwe :N;  set concavity only;  piwe;  report;  piwe +N;  auto-weighted (options: slfwt)\n"
     "piwe [ w0 w1 ...;  weight of each extra step;  piwe [;  show them;  piwe ];  remove them\n"
     "piwe |N;  cost of N steps of homoplasy;  piwe <R N;  concavity for a ratio R of first to Nth step\n"
     "piwe &;  concavity of each character"},
    {"pruncom",
     "pruncom [ list ];  taxa whose pruning improves the combinable consensus"},
    {"prunmajor",
     "prunmajor [ list ];  taxa whose pruning improves the majority consensus"},
    {"prunnelsen",
     "prunnelsen [ list ];  taxa whose pruning improves the strict consensus"},
    {"pruntax",
     "pruntax list / taxa;  prune taxa from the given trees"},
    {"prupdn",
     "prupdn [ list ];  taxa that decrease group supports"},
    {"pqax",
     "pqax options;  parallel jobs: spawn, get, wait, kill, ..."},
    {"qcollapse",
     "qcollapse;  quick collapsing of zero-length branches"},
    {"qnelsen",
     "qnelsen [ options ];  quick consensus estimation by repeated searches"},
    {"quote",
     "quote text;  print text up to the next ';' (commas stay commas)\n"
     "quote: text;  print even when silent;  '.,' prints a semicolon"},
    {"quit",
     "quit;  end the program (may be abbreviated to \"qui\")"},
    {"randtrees",
     "randtrees N J K;  N random trees, polytomy probability J, up to K-furcations"},
    {"ratchet",
     "ratchet [ = options ];  ratchet from the best tree in memory: perturbed weights, then TBR\n"
     "Options: iter N, numsubs N, upfact N, downfact N, [no]equals, giveup N, [no]tradrat,\n"
     "findscore N\n"
     "ratchet: options;  set options only;  ratchet:;  report settings"},
    {"rcompl",
     "rcompl [ list ];  taxa compatible with / removed from groups"},
    {"rdir",
     "rdir path;  directory searched for <name>.run files besides the current one"},
    {"rebuild",
     "rebuild [ options ];  rebuild trees by removing and re-adding taxa"},
    {"recons",
     "recons [ list ];  state reconstructions of characters on the given trees"},
    {"report",
     "report =;  show progress of long computations;  report -;  do not\n"
     "report [;  progress records to the log (background);  report ];  do not\n"
     "report + N / M / K;  record every N seconds, M replications, K trees"},
    {"reroot",
     "reroot [ list ];  re-root the trees on the outgroup"},
    {"resample",
     "resample [ options ] [ search commands ] / taxa;  resampling supports\n"
     "Options: jak, boot, poisson, sym, replications N, probability N, cut N, frequency, gc,\n"
     "savetrees, from N, softboot N, zerowt, nozerowt, allow (and no- forms of the summaries)"},
    {"resols",
     "resols [ list ];  resolution of the given trees"},
    {"rfreqs",
     "rfreqs [J] [ list ];  frequencies in the listed trees of the groups of reference tree J"},
    {"riddup",
     "riddup;  delete duplicate trees (after collapsing)"},
    {"rseed",
     "rseed N;  random seed N (0 uses the time);  rseed *;  random seed from the time\n"
     "rseed;  report the seed"},
    {"run",
     "run file arguments;  run a command file with arguments %1 ... %32\n"
     "run;  close the current file\n"
     "A word that is no command runs <word>.run when such a file exists."},
    {"runc",
     "runc file arguments;  run a C-script"},
    {"save",
     "save [ list ];  write the given trees to the open tree file"},
    {"screen",
     "screen N x M;  the screen has N lines and M columns (at least 10 each)\n"
     "screen;  report"},
    {"scores",
     "scores [ list ];  scores of the given trees"},
    {"sectsch",
     "sectsch [ = options ];  sectorial searches\n"
     "Options: rss, css, xss B-E+R-G, dss N D, drift N, fuse N, minsize N, maxsize N, selfactor N,\n"
     "increase N, godrift N, gocomb N, starts N, global N, dglobal N, equals, tree N"},
    {"shortread",
     "shortread file;  read a compact binary data file"},
    {"shpcomp",
     "shpcomp list;  compare shapes of trees"},
    {"silent",
     "silent = words;  suppress output to file, console, buffer or all\n"
     "silent - words;  restore it;  silent;  report (console stays off in background)"},
    {"slfwt",
     "slfwt options;  settings of self-weighted optimisation"},
    {"slaveproc",
     "Command-line only: started by a parent process as a worker."},
    {"smatrix",
     "smatrix =N ( name ) s>t cost ...;  define step matrix N\n"
     "smatrix +name list;  apply it to characters (by number or name);  smatrix;  report"},
    {"sort",
     "sort = score | nodes | size | mono;  sort the trees in memory"},
    {"sprdiff",
     "sprdiff [*] J K [ NxS ];  SPR distance between two trees;  sprdiff [K;  sprdiff ];  sprdiff options;"},
    {"subopt",
     "subopt N;  keep suboptimal trees within N of the best;  subopt N x R;  also set the\n"
     "relative limit R (0-1) that Bremer supports by TBR use for relative supports;  subopt;  report"},
    {"svtxt",
     "svtxt A B;  write lines A to B of the text buffer to the log\n"
     "svtxt;  write all the buffer"},
    {"system",
     "system command;  run a shell command"},
    {"tables",
     "tables =;  tables show only active, informative items;  tables -;  all items\n"
     "tables /N;  N decimals in tables (max. 10);  tables /;  report"},
    {"tagset",
     "tagset N;  choose the tree-tag set"},
    {"taxcode",
     "taxcode + list;  activate taxa;  taxcode - list;  deactivate;  taxcode;  report"},
    {"taxlabels",
     "taxlabels list;  show taxon names and numbers"},
    {"taxonomy",
     "taxonomy options;  compare trees with a taxonomy"},
    {"taxname",
     "taxname =;  use names;  taxname -;  use numbers\n"
     "taxname +N;  names up to N characters;  taxname [N;  truncate names in output"},
    {"tchoose",
     "tchoose list;  keep only the listed trees (the others are discarded)\n"
     "tchoose /;  keep only the last tree"},
    {"tcomp",
     "tcomp list;  compare groups of trees"},
    {"tequal",
     "tequal [ list ];  find trees equal to others"},
    {"tfuse",
     "tfuse [ trees ] [ = options ];  tree fusing of the trees in memory\n"
     "Options: rounds N, equals, beststart, choose, repeat, swap, minfork N, keepall, xroot N,\n"
     "autostop N, hybrid N*R/S, replace, clog N, picktype N;  tfuse / N D R;  fuse node N of tree D into tree R"},
    {"tgroup",
     "tgroup =N (name) list;  define tree group N;  tgroup;  list groups"},
    {"thanks",
     "thanks;  credits"},
    {"timeout",
     "timeout h:m:s;  time limit for searches (a single number is seconds)\n"
     "timeout 0;  no limit;  timeout;  report"},
    {"tnodes",
     "tnodes [ list ];  number of nodes of the given trees"},
    {"tplot",
     "tplot [ list ];  draw trees;  tplot * [ list ];  write them in parenthetical notation\n"
     "tplot + / tplot -;  symmetric or asymmetric drawings;  tplot : text;  initial zoom\n"
     "tplot = L T R B;  margins of SVG files"},
    {"tread",
     "tread trees;  read trees in parenthetical notation (\"tread*\" adds to the trees)"},
    {"tsave",
     "tsave file;  open a tree file;  tsave file+;  append to it;  tsave *file;  parenthetical\n"
     "tsave = file;  save the trees at once;  tsave !T file;  auto-save every T;  tsave /;  close"},
    {"tshrink",
     "tshrink;  reduce the memory of the tree buffer to the trees in memory"},
    {"tsize",
     "tsize [ list ];  number of taxa in the given trees"},
    {"ttags",
     "ttags =;  start storing tree tags;  ttags );  stop;  ttags -;  clear;  ttags;  show them\n"
     "ttags +N txt;  write to node N;  ttags <N;  erase;  ttags *N;  target tree N;  ttags /;  save\n"
     "ttags &file [ options ];  SVG diagram (option xysave name keeps it open);  ttags &+ text X Y txt;\n"
     "write txt at X Y on the open diagram;  ttags &;  close it"},
    {"tvault",
     "tvault options;  move trees between memory and the vault"},
    {"txtsize",
     "txtsize N;  text buffer of N Kb (clears it);  txtsize;  report\n"
     "txtsize =;  compress blanks in the buffer;  txtsize -;  do not (clears it)\n"
     "txtsize /;  size the buffer would take on disk"},
    {"tzert",
     "tzert [ list ];  trees with zero-length branches"},
    {"view",
     "view;  view the text buffer;  view : text;  search;  view file;  view a file\n"
     "view +;  continuous viewing;  view -;  end it"},
    {"vlinks",
     "vlinks list;  view character links"},
    {"vversion",
     "vversion;  program name, version and date"},
    {"warn",
     "warn =;  ask before going on after a warning;  warn -;  warnings to log only"},
    {"watch",
     "watch =;  show the seconds each timed command takes;  watch -;  do not\n"
     "watch [;  also measure RAM used by each command;  watch ];  do not ('!' resets)\n"
     "watch /;  elapsed time;  watch *;  reset the clock"},
    {"xcomp",
     "xcomp [ list ];  compare characters on trees"},
    {"xgroup",
     "xgroup =N (name) list;  define character group N;  xgroup;  list groups"},
    {"xinact",
     "xinact;  deactivate uninformative characters"},
    {"xlinks",
     "xlinks options;  define character links"},
    {"xmult",
     "xmult [ = options ];  driver combining sectorial searches, ratchet, drift, fusing\n"
     "Options: hits N, replications N, level N, rss, css, xss, ratchet N, drift N, fuse N\n"
     "xmult: options;  set options only;  xmult:;  report settings"},
    {"xperm",
     "xperm [ list ];  permute the states of characters among taxa"},
    {"xpiwe",
     "xpiwe options;  extended implied weighting (options may follow one another; a list ends the command)\n"
     "xpiwe =;  on, each k matching the cost of steps;  xpiwe *;  on, k proportional to the entries;  xpiwe -;  off\n"
     "xpiwe (*P <M;  extrapolate homoplasy into missing entries (proportion P, k at most M times smaller)\n"
     "xpiwe );  no extrapolation;  xpiwe ];  remove sets, constant weights and individual k values\n"
     "xpiwe [L;  characters L weighted together as a set;  xpiwe /NxF L;  characters L of constant weight,\n"
     "each step costing F times the step from N to N+1 extra steps\n"
     "xpiwe !K L;  concavity K for characters L;  xpiwe &L;  list the concavities;  xpiwe;  report"},
    {"xread",
     "xread N_chars N_taxa  name states ... ;  read a data matrix (blocks: & [ dna | prot | num | cont ])\n"
     "xread *;  save all data (** with settings);  xread -;  active data;  xread [;  active, shuffled\n"
     "xread !T/C;  taxa T, characters C;  xread :T/C;  the same with down-pass sets of tree 0's nodes\n"
     "xread = C T S ...;  set cells;  xread =! C T S ...;  add states;  xread = ? Pc Pt;  make Pt% of\n"
     "taxa missing in Pc% of characters;  xread ==;  cells as read;  xread /C T N;  random data\n"
     "xread +T P C N;  data along tree T (stasis P%);  xread <T P L;  characters L again along tree T\n"
     "xread >L;  along the tagged branch lengths;  xread &T C N M;  along tree T, each character's\n"
     "probability of change drawn from an exponential of mean M%"},
    {"xwipe",
     "xwipe;  wipe the data and trees from memory"},
    {"unique",
     "unique;  discard duplicate trees (without collapsing)"},
    {"unshared",
     "unshared [ list ];  groups not shared among trees"},
    {"usminmax",
     "usminmax min list = M ...;  user minimum steps of Sankoff characters\n"
     "usminmax max list = S ...;  states 0-S open to ancestors;  usminmax = / - / /  maximum\n"
     "states applied or not;  usminmax;  report"},
    {"zzz",
     "zzz;  end the program (as quit)"},
    {"bandb",
     "bandb actions stop;  branch-and-bound loop of the macro language"},
    {"barplot",
     "barplot list;  bar plot of values"},
    {"combine",
     "combine X min/max varname ... endcomb;  combinations loop"},
    {"continue",
     "continue;  skip to the next iteration of a loop"},
    {"copytree",
     "copytree N;  copy tree N to a new tree"},
    {"chkbreak",
     "chkbreak;  wait for a key;  chkbreak N;  poll for interruption"},
    {"cutbranch",
     "cutbranch;  cut the current branch of a bandb loop"},
    {"else",
     "else;  alternative actions of an if"},
    {"end",
     "end;  ends an if construct"},
    {"endbranch",
     "endbranch;  ends a bandb branch"},
    {"endloop",
     "endloop;  ends the current loop now"},
    {"endswap",
     "endswap;  inside sprit or tbrit: ends the loop"},
    {"errmsg",
     "errmsg text;  print text and fail"},
    {"forfiles",
     "forfiles fname actions stop;  loop over files"},
    {"goto",
     "goto fname L [ args ];  jump to label L of a file"},
    {"hifile",
     "hifile name;  open a text file for the hif... expressions;  hifile;  close it"},
    {"if",
     "if ( cond ) actions [ else actions ] end"},
    {"iternucrecs",
     "iternucrecs;  iterate over nucleotide reconstructions"},
    {"iterrecs",
     "iterrecs T C [&] [/N] [\\N] [*D] [+] var actions endrecs;  run actions for each best\n"
     "reconstruction of character C on tree T, node states in var (& honours forced states in var,\n"
     "/N a random sample of N, \\N N random resolutions, *D continuous values every D, + differences);\n"
     "killrecs;  ends the loop"},
    {"killfiles",
     "killfiles;  ends a forfiles loop"},
    {"label",
     "label L;  target of goto"},
    {"loop",
     "loop X+Z Y actions stop;  loop from X to Y in steps of Z"},
    {"macfloat",
     "macfloat N;  decimals of macro numbers"},
    {"macro",
     "macro =;  enable macros;  macro -;  disable;  macro;  report"},
    {"macreport",
     "macreport =;  report macro assignments;  macreport -;  do not"},
    {"macseed",
     "macseed N;  seed of macro random numbers"},
    {"maketable",
     "maketable name title;  print a one-dimensional array as a table;  maketable + name;\n"
     "copy the tables of later commands into array name;  maketable -;  stop copying"},
    {"private",
     "private N;  private variables of a file"},
    {"progress",
     "progress N M text;  show progress N of M with text (with report off)"},
    {"recurse",
     "recurse arguments;  run the current file again with arguments"},
    {"resetswap",
     "resetswap;  inside sprit or tbrit: starts the moves again from the present tree"},
    {"resettime",
     "resettime;  reset the base of the time expression"},
    {"return",
     "return N;  close the current file with exit status N"},
    {"safe",
     "safe vars N;  safe loops N;  safe ram N;  check space left"},
    {"set",
     "set var expression;  assign a macro variable"},
    {"setarray",
     "setarray dims name values;  fill an array"},
    {"setloop",
     "setloop N;  inside a loop: the next pass has value N"},
    {"slaveget",
     "slaveget;  get data from the parent"},
    {"slaveset",
     "slaveset;  send data to the parent"},
    {"sprit",
     "sprit T actions stop;  runs the actions for every SPR move of tree T (the tree moved)"},
    {"tbrit",
     "tbrit T actions stop;  runs the actions for every TBR move of tree T (the tree moved)"},
    {"travtree",
     "travtree type T N varname actions endtrav;  traverse a tree"},
    {"var",
     "var: names;  declare macro variables"},
    {"xend",
     "xend;  ends an if construct"},
};

}  // namespace

const char* help_text_for(std::string_view name) {
  for (const auto& e : help_entries) {
    if (name == e.name) return e.text ? e.text : "No help text yet.";
  }
  return nullptr;
}

}  // namespace qax::app
