// Internal functions of expressions: the reserved names, and the values of those that
// this version computes. A reserved name without a value here fails clearly instead of
// reading as zero.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "optim/reports.h"
#include "script/expr.h"
#include "script/reader.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"
#include "script/list_store.h"
#include "support/bremer.h"
#include "support/supports.h"
#include "support/tree_compare.h"

namespace qax::script {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

double swap_percent();
double bandb_value(bool full);
double iterrecs_steps();
bool hif_value(const std::string& word, double& v);

namespace {

const char* const reserved_names[] = {
    "absicnl", "break", "collapse", "maxtrees", "report", "rseed", "macseed", "protmode", "subopt",
    "rsubopt", "kval", "piwe", "slerrmarg", "outgroup", "percswap", "bground", "exstatus",
    "pexstatus", "ntax", "nchar", "ntrees", "nblocks", "nnucs", "maxvars", "allvars", "freevars",
    "argnumber", "listsize", "root", "vtrees", "maxtgroups", "maxcfork", "bittype", "cpus",
    "totcpus", "mypid", "usdram", "time", "runtime", "linux", "windows", "cygwin", "gtk", "pmode",
    "anc", "sister", "firstdes", "nodfork", "numdes", "comnod", "distnode", "isanc", "isintree",
    "ismono", "tnodes", "nnodes", "tsize", "getarep", "eqgroup", "gcomp", "gfreq", "simgroup",
    "splitgroup", "invault", "isdup", "eqtrees", "mono", "uplist", "downlist", "deslist",
    "grouplist", "repspoly", "blocklist", "length", "score", "fit", "homo", "whomo", "softlength",
    "softscore", "softfit", "softhomo", "grandscore", "mintrans", "maxtrans", "minsteps",
    "maxsteps", "recsteps", "rearrangs", "accepted", "tcount", "numhits", "lastsupp",
    "lastsibyl", "bremlist", "freqlist", "freqdlist", "impwtlist", "grptogrp", "discoeff",
    "symcoeff", "grpdist", "tripdist", "rfdist", "clusdist", "sprdiff", "sprsim", "flipd", "osr",
    "isact", "isadd", "iscont", "isinfo", "issank", "islmark", "nstates", "maxstate", "weight",
    "cost", "contscale", "contmins", "contmaxs", "states", "statediff", "missing", "numbits",
    "nummissing", "seqstart", "seqend", "editcost", "matchtax", "isactax", "isinagroup",
    "isinxgroup", "isintgroup", "isinhgroup", "taxingp", "charsingp", "treesingp", "havetgp",
    "taxinblock", "blockstart", "blockend", "chartonuc", "isinnuc", "nucmaxstate", "nucmember",
    "nucsize", "nuctostate", "lik", "mklik", "mplik", "implik", "simplik", "smplik", "fixlik",
    "lmdims", "lmerror", "lmfactor", "lmmaxdist", "lmnchar", "lmnpoints", "lmscore", "lmwt",
    "lmxcell", "lmxcoord", "exp", "log", "power", "neper", "combin", "numclads", "getrandom",
    "randomlist", "maxval", "minval", "meanval", "sumval", "stddev", "spearman", "regr", "regalfa",
    "regbeta", "intpol", "matexp", "sortlist", "varsize", "isdefd", "eqstring", "lenstring",
    "isinstring", "stringend", "stringsim", "isfile", "curisdir", "getresponse", "hifchar",
    "hifeof", "hifline", "hifnumber", "hifspy", "hifstring", "hiftext", "biginsect", "bignotsect",
    "bigntax", "nodtosect", "seclevel", "cutswap", "bbfull", "bbtax", "treeparts", "iscateg",
    "numcategs", "ttaghei", "ttagwid", "ttags", "dcomp", "attag", "bestscore", "deltascore",
    "hostload", "ntasksbelow", "numerrors", "numhosts", "numjobs", "numrearrangs", "numreps",
    "numtasks", "numtrees", "percdone", "plevel", "schalg", "slavenum", "speed", "tagsum",
    "tasksatsch", "tasksin", "tasksleft", "tasksrecvd", "tasktoh", "waitsuccess",
    // Variants computed by the same routines.
    "lmycell", "lmzcell", "lmycoord", "lmzcoord", "rrfdist", "rfdistp", "rrfdistp", "tripdistp",
    "symcoeffp", "aclusdist", "agrpdist", "minstepsact", "maxstepsact", "logten", "contmin",
    "contmax", nullptr};

// Arguments in square brackets; `min` of them required, up to `max`.
std::vector<double> read_arguments(int min, int max) {
  std::vector<double> args;
  int c = next_char();
  if (c != '[') {
    unread_char();
    if (min > 0) error_exit("Need opening brackets");
    return args;
  }
  for (;;) {
    c = next_char();
    while (c > 0 && c < 33) c = next_char();
    if (c == ']') break;
    if (c == ';' || c == 0) {
      unread_char();
      error_exit("Need closing brackets");
    }
    if (c == ',') continue;
    unread_char();
    if (static_cast<int>(args.size()) >= max) error_exit("Need closing brackets");
    // Each argument is a term, or a term joined by operators: read as a bracketed value.
    double v = read_term();
    for (;;) {
      c = next_char();
      while (c > 0 && c < 33) c = next_char();
      if (c == '+' || c == '*' || c == '/' || (c == '-' && false)) {
        const double t = read_term();
        if (c == '+') v += t;
        else if (c == '*') v *= t;
        else {
          if (t == 0) error_exit("Can't divide by zero");
          v /= t;
        }
        continue;
      }
      unread_char();
      break;
    }
    args.push_back(v);
  }
  if (static_cast<int>(args.size()) < min) error_exit("Give number");
  return args;
}

int tree_argument(double v) {
  const int t = clamp_int(v);
  if (t < 0 || t >= tree_store.ntrees) {
    error_exit({"Only", number_text(tree_store.ntrees), "trees in memory"});
  }
  return t;
}

int character_argument(double v) {
  if (!dataset.loaded) error_exit("No data file has been read!");
  const int c = clamp_int(v);
  if (c < 0 || c >= dataset.nchar) error_exitf("Character number required ( 0 - %i )", dataset.nchar - 1);
  return c;
}

int taxon_argument(double v) {
  if (!dataset.loaded) error_exit("No data file has been read!");
  const int t = clamp_int(v);
  if (t < 0 || t >= dataset.ntax) error_exitf("Taxon number required ( 0 - %i )", dataset.ntax - 1);
  return t;
}

}  // namespace

bool is_reserved_word(const std::string& word) {
  for (const char* const* n = reserved_names; *n; ++n)
    if (word == *n) return true;
  return false;
}

bool internal_function(const std::string& w, double& v) {
  if (!is_reserved_word(w)) return false;
  // Sizes and settings.
  if (w == "ntax") { v = dataset.loaded ? dataset.ntax - 1 : -1; return true; }
  if (w == "nchar") { v = dataset.loaded ? dataset.nchar - 1 : -1; return true; }
  if (w == "ntrees") { v = tree_store.ntrees - 1; return true; }
  if (w == "maxtrees") { v = tree_store.maxtrees; return true; }
  if (w == "maxvars") { v = space.max_vars; return true; }
  if (w == "allvars") { v = space.max_vars; return true; }
  if (w == "freevars") { v = space.max_vars - next_free_cell(); return true; }
  if (w == "argnumber") { v = current_frame().argument_count; return true; }
  if (w == "listsize") { v = space.listsize; return true; }
  if (w == "exstatus") { v = space.exstatus; return true; }
  if (w == "macseed") { v = space.seed; return true; }
  if (w == "rseed") { v = shell_state.random_seed; return true; }
  if (w == "protmode") { v = space.protection; return true; }
  if (w == "bground") { v = shell_state.background; return true; }
  if (w == "report") { v = switches.report; return true; }
  if (w == "break") { v = switches.brk; return true; }
  if (w == "mypid") { v = getpid(); return true; }
  if (w == "linux") { v = 1; return true; }
  if (w == "windows" || w == "cygwin" || w == "gtk") { v = 0; return true; }
  if (w == "cpus" || w == "totcpus") { v = sysconf(_SC_NPROCESSORS_ONLN); return true; }
  if (w == "time") { v = now_seconds() - space.time_base; return true; }
  if (w == "runtime") { v = std::difftime(std::time(nullptr), shell_state.run_start_time); return true; }
  if (w == "nblocks") { v = dataset.loaded ? static_cast<double>(dataset.block_names.size()) : 0; return true; }
  // Scores.
  if (w == "length" || w == "score") {
    auto a = read_arguments(1, 2);
    if (!dataset.loaded) error_exit("No data file has been read!");
    const int t = tree_argument(a[0]);
    const int c = a.size() > 1 ? character_argument(a[1]) : -1;
    v = qax::optim::stored_tree_length(t, c);
    return true;
  }
  if (w == "minsteps" || w == "maxsteps") {
    auto a = read_arguments(1, 1);
    const int c = character_argument(a[0]);
    qax::dataset::minmax_check();
    v = w == "minsteps" ? dataset.chars[c].min_steps : dataset.chars[c].max_steps;
    return true;
  }
  // Characters and taxa.
  if (w == "isact") { v = dataset.chars[character_argument(read_arguments(1, 1)[0])].active; return true; }
  if (w == "isadd") { v = dataset.chars[character_argument(read_arguments(1, 1)[0])].additive; return true; }
  if (w == "iscont") { v = dataset.chars[character_argument(read_arguments(1, 1)[0])].is_continuous; return true; }
  if (w == "issank") { v = dataset.chars[character_argument(read_arguments(1, 1)[0])].sankoff != 0; return true; }
  if (w == "weight") { v = dataset.chars[character_argument(read_arguments(1, 1)[0])].weight; return true; }
  if (w == "isactax") {
    const int t = taxon_argument(read_arguments(1, 1)[0]);
    v = dataset.taxon_active.empty() ? 1 : dataset.taxon_active[t];
    return true;
  }
  // Arithmetic.
  if (w == "exp") { v = std::exp(read_arguments(1, 1)[0]); return true; }
  if (w == "log") {
    const double x = read_arguments(1, 1)[0];
    if (x <= 0) error_exit("Logarithm of a number below or equal to zero");
    v = std::log(x);
    return true;
  }
  if (w == "logten") {
    const double x = read_arguments(1, 1)[0];
    if (x <= 0) error_exit("Logarithm of a number below or equal to zero");
    v = std::log10(x);
    return true;
  }
  if (w == "power") {
    auto a = read_arguments(2, 2);
    v = std::pow(a[0], a[1]);
    return true;
  }
  if (w == "neper") { v = std::exp(1.0); return true; }
  if (w == "getrandom") {
    auto a = read_arguments(2, 2);
    const int from = clamp_int(a[0]), to = clamp_int(a[1]);
    if (to < from) error_exit("Wrong range for random numbers");
    const long long span = static_cast<long long>(to) - from + 1;
    const long long r = (static_cast<long long>(macro_random()) << 15 | macro_random()) % span;
    v = from + static_cast<double>(r);
    return true;
  }
  if (w == "numbits") {
    const std::uint32_t x = static_cast<std::uint32_t>(clamp_ll(read_arguments(1, 1)[0]) & 0xffffffffLL);
    v = __builtin_popcount(x);
    return true;
  }
  if (w == "isfile") {
    int c = next_char();
    while (c > 0 && c < 33) c = next_char();
    std::string name;
    while (c > 32 && c != ';' && c != ')' && c != ']') {
      name.push_back(static_cast<char>(c == '^' ? ' ' : c));
      c = next_char();
    }
    unread_char();
    v = access(name.c_str(), R_OK) == 0 ? 1 : 0;
    return true;
  }
  if (w == "varsize") {
    const std::string name = read_word();
    const NamedVar* var = find_name(name);
    if (!var) error_exit({"Unrecognized variable:", name});
    v = var->dims ? var->extent[var->dims - 1] : 1;
    return true;
  }
  if (hif_value(w, v)) return true;
  // Values of the latest tree comparisons and supports (-1 when none was made).
  {
    const auto& lc = qax::support::last_comparison;
    const struct { const char* name; double value; } latest[] = {
        {"discoeff", lc.discoeff}, {"symcoeff", lc.symcoeff}, {"clusdist", lc.clusdist},
        {"grpdist", lc.grpdist},   {"rfdist", lc.rfdist},     {"osr", lc.osr},
        {"tripdist", lc.tripdist}, {"sprdiff", lc.sprdiff},   {"sprsim", lc.sprsim}};
    for (const auto& l : latest) {
      if (w == l.name) {
        v = l.value;
        return true;
      }
    }
  }
  if (w == "bremlist") {
    // The options, trees and "/" taxa of bsupport follow, up to the end of the command.
    const std::vector<double> values = qax::support::bremer_list();
    store_list(w, values);
    v = static_cast<double>(values.size());
    return true;
  }
  if (w == "lastsupp") { v = qax::support::last_support(); return true; }
  if (w == "recsteps") { v = iterrecs_steps(); return true; }
  if (w == "bbfull") { v = bandb_value(true); return true; }
  if (w == "bbtax") { v = bandb_value(false); return true; }
  if (w == "percswap") {
    v = swap_percent();
    return true;
  }
  error_exit({"Expression", "\"" + w + "\"", "is not available yet in this version"});
}

}  // namespace qax::script

namespace qax::script {

namespace {

// The expressions by family, with what each family returns, for help+.
struct Family {
  const char* title;
  const char* help;
  const char* names;  // blank separated
};

const Family families[] = {
    {"Settings", "the value of the setting of that name (absicnl is the absincl setting)",
     "absicnl break collapse maxtrees report rseed macseed protmode subopt rsubopt kval piwe slerrmarg outgroup "
     "percswap bground exstatus pexstatus"},
    {"Sizes", "counts and sizes; ntax, nchar and ntrees give the last valid number (loop 0 ntax)",
     "ntax nchar ntrees nblocks nnucs maxvars allvars freevars argnumber listsize root vtrees maxtgroups maxcfork "
     "bittype cpus totcpus mypid usdram time runtime"},
    {"System", "1 when the program runs on that kind of system, else 0", "linux windows cygwin gtk pmode"},
    {"Nodes", "relations of nodes on tree T: name[ T N ... ]",
     "anc sister firstdes nodfork numdes comnod distnode isanc isintree ismono tnodes nnodes tsize getarep eqgroup "
     "gcomp gfreq simgroup splitgroup invault isdup eqtrees mono"},
    {"Lists", "lists of nodes or groups written into the array of the set target",
     "uplist downlist deslist grouplist repspoly blocklist"},
    {"Scores", "scores of tree T, or of character C on it: length[ T ] or length[ T C ]",
     "length score fit homo whomo softlength softscore softfit softhomo grandscore mintrans maxtrans minsteps "
     "maxsteps recsteps rearrangs accepted tcount numhits lastsupp lastsibyl"},
    {"Supports", "support values into an array", "bremlist freqlist freqdlist impwtlist grptogrp"},
    {"Comparisons", "the value of the latest tree comparison (tcomp, sprdiff) of that kind",
     "discoeff symcoeff grpdist tripdist rfdist clusdist sprdiff sprsim flipd osr"},
    {"Characters", "properties of character C: name[ C ]",
     "isact isadd iscont isinfo issank islmark nstates maxstate weight cost contscale contmins contmaxs states "
     "statediff missing numbits nummissing seqstart seqend editcost matchtax"},
    {"Taxa and groups", "membership of taxa, characters and trees in groups and blocks",
     "isactax isinagroup isinxgroup isintgroup isinhgroup taxingp charsingp treesingp havetgp taxinblock "
     "blockstart blockend"},
    {"Complexes", "characters linked in complexes", "chartonuc isinnuc nucmaxstate nucmember nucsize nuctostate"},
    {"Likelihood", "likelihoods of trees", "lik mklik mplik implik simplik smplik fixlik"},
    {"Landmarks", "landmark configurations and scores",
     "lmdims lmerror lmfactor lmmaxdist lmnchar lmnpoints lmscore lmwt lmxcell lmxcoord"},
    {"Arithmetic", "functions of numbers and arrays: exp[ x ], log[ x ], power[ x y ], getrandom[ from to ], ...",
     "exp log power neper combin numclads getrandom randomlist maxval minval meanval sumval stddev spearman regr "
     "regalfa regbeta intpol matexp sortlist varsize isdefd"},
    {"Strings and files", "comparisons of strings, files and the file opened by hifile",
     "eqstring lenstring isinstring stringend stringsim isfile curisdir getresponse hifchar hifeof hifline "
     "hifnumber hifspy hifstring hiftext"},
    {"Sectors and swapping", "state of sector searches, swap loops and bandb",
     "biginsect bignotsect bigntax nodtosect seclevel cutswap bbfull bbtax treeparts"},
    {"Tags and taxonomy", "tree tags and taxonomic categories", "iscateg numcategs ttaghei ttagwid ttags dcomp"},
    {"Parallel versions only:", "values of parallel jobs",
     "attag bestscore deltascore hostload ntasksbelow numerrors numhosts numjobs numrearrangs numreps numtasks "
     "numtrees percdone plevel schalg slavenum speed tagsum tasksatsch tasksin tasksleft tasksrecvd tasktoh "
     "waitsuccess"},
};

// Names this version computes; the others are reserved and fail with a clear message.
const char* const computed =
    " ntax nchar ntrees maxtrees maxvars allvars freevars argnumber listsize exstatus macseed rseed protmode "
    "bground report break mypid linux windows cygwin gtk cpus totcpus time runtime nblocks length score minsteps "
    "maxsteps isact isadd iscont issank weight isactax exp log logten power neper getrandom numbits isfile "
    "varsize percswap bbfull bbtax recsteps hifeof hifchar hifspy hifnumber hifline hifstring hiftext ";

bool is_computed(const std::string& w) { return std::strstr(computed, (" " + w + " ").c_str()) != nullptr; }

void show_expression_help(const std::string& word) {
  if (word.empty()) {
    out_text({"\nEXPRESSIONS:\n"});
    for (const auto& f : families) {
      out_text({"\n", f.title, "\n"});
      std::string line;
      std::string names = f.names;
      std::size_t at = 0;
      int k = 0;
      while (at < names.size()) {
        std::size_t end = names.find(' ', at);
        if (end == std::string::npos) end = names.size();
        char cell[32];
        std::snprintf(cell, sizeof cell, " %12s", names.substr(at, end - at).c_str());
        line += cell;
        if (++k % 6 == 0) {
          out_text({line, "\n"});
          line.clear();
        }
        at = end + 1;
      }
      if (!line.empty()) out_text({line, "\n"});
    }
    return;
  }
  for (const auto& f : families) {
    const std::string names = std::string(" ") + f.names + " ";
    if (names.find(" " + word + " ") == std::string::npos) continue;
    out_text({word, ": ", f.help, is_computed(word) ? "" : " (not available yet in this version)", "\n"});
    return;
  }
  if (is_reserved_word(word)) {
    out_text({word, ": a variant of a reserved expression", is_computed(word) ? "" : " (not available yet in this version)", "\n"});
    return;
  }
  error_exit({"Unrecognized expression:", word});
}

}  // namespace

void install_expression_help() { expression_help = show_expression_help; }

}  // namespace qax::script
