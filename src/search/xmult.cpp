// xmult: batches of replications, each a Wagner tree, swapping, sectorial searches, ratchet
// and drift; the batch is fused, and more builds are fused in until the target score is
// reached. A hit is a batch that reached the best score; the store keeps the trees of best
// score of all hits.
#include "search/xmult.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <unordered_set>

#include "dataset/dataset.h"
#include "optim/collapse.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/fusing.h"
#include "search/search_internal.h"
#include "search/implied_swap.h"
#include "optim/implied.h"
#include "search/sectors.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

XmultConsensusHooks xmult_consensus_hooks;


using namespace qax::shell;
using qax::trees::tree_store;

XmultSettings xmult_settings;
int xmult_hits = 0;
double xmult_score = -1.0;

namespace {
int trunc_int(double x) { return static_cast<int>(x); }
int round_int(double x) { return static_cast<int>(std::trunc(x + 0.5)); }
}  // namespace

void set_search_level(double L, int T) {
  SectorSettings& ss = sector_settings;
  XmultSettings& x = xmult_settings;
  const double h = T / 2.0;
  double w = h - (2.0 / (1.0 + L)) * h;
  if (L >= 3) w = 1.25 * w;
  const double size = std::min(h, std::max(45.0, w));
  ss.maxsize = round_int(size);
  const double minsize = std::min(size, 45.0);
  ss.minsize = round_int(minsize);
  ss.selfactor = trunc_int(100 - 100 * L / (L + 2));
  ss.selections.clear();
  ss.global = round_int(0.75 * T / minsize);
  ss.dglobal = T < 500 ? 10 : round_int(2.0 * T / 100);
  ss.increase = 75;
  x.xmix = 1;
  x.autoconst = 1;
  x.ratchet = 0;
  x.drift = L <= 2 ? 0 : L <= 5.5 ? 4 : round_int(6 * (L - 4));
  x.fuse = L > 3 ? trunc_int(L) : 3;
  x.replications = trunc_int(L + 4);
  x.level = L;
}

void retune_search_level(int level_hits, int period, int changing) {
  XmultSettings& x = xmult_settings;
  SectorSettings& ss = sector_settings;
  if (period <= 0) return;
  double ratio = static_cast<double>(level_hits) / period;
  if (ratio > 0.5) return;
  ratio = std::clamp(ratio, 0.75, 1.25);
  // Few hits for the period: the search is too weak, so it grows (and shrinks otherwise).
  ratio = 2.0 - ratio;
  const bool rising = ratio > 1;
  if (x.verbose) out_printf("\n\n   %s", rising ? "In" : "De");
  if (x.chkfactor > 0 && x.level >= 0) {
    double L = x.level + (rising ? x.chkfactor : -x.chkfactor);
    L = std::clamp(L, 0.0, 10.0);
    if (x.verbose) out_printf("creasing search level (%s) to %.2f\n", "level", L);
    set_search_level(L, optim::packed.nterm);
  } else {
    if (x.verbose) out_printf("creasing search level (%s) \n", "parameters");
    ss.maxsize = std::max(ss.minsize, static_cast<int>(ss.maxsize * ratio));
    ss.selfactor = std::clamp(static_cast<int>(ss.selfactor / ratio), 5, 95);
    x.replications = std::clamp(static_cast<int>(x.replications * ratio), 4, 12);
    x.fuse = std::clamp(static_cast<int>(x.fuse * ratio), 4, 10);
    x.drift = static_cast<int>(x.drift * ratio) + (rising ? 1 : 0);
  }
  if (!x.rss && !x.css && !x.xss) x.rss = 1;
  if (x.verbose) {
    out_printf("   Using %i initial replications\n   ", x.replications);
    out_printf("Random sectors of sizes %i-%i (with factor %i)\n   ", ss.minsize, ss.maxsize, ss.selfactor);
    if (x.drift > 0) out_printf("Doing %i rounds of drifting\n   ", x.drift);
    else out_printf("No tree-drifting\n   ");
    out_printf("%i rounds of fusing\n", x.fuse);
  }
  (void)changing;
}

namespace {

using Tree = std::vector<std::int32_t>;

// Under implied weighting the replications swap, drift and ratchet by fits; sectors are
// searched by steps and taken by fits; autoconstraints and hybridization are left out.
bool by_fits() { return optim::implied_settings.implied_on != 0; }
// Sectors need step counts, and tables that a reduced data set can stand for.
bool by_sectors() { return sector_obstacle() == nullptr; }
// Hybridization places taxa by steps and takes its trees by fits under implied weighting.
bool by_hybrid() { return true; }

double fit_swap(Tree& t, bool tbr) {
  long long examined = 0;
  const double f = implied_swap(t, tbr, examined);
  rearrangements_examined.add(static_cast<std::uint64_t>(examined));
  return f;
}

// Search settings of the other drivers that a run changes, put back on every exit.
struct SettingsGuard {
  SearchSettings search = search_settings;
  RatchetSettings ratchet = ratchet_settings;
  DriftSettings drift = drift_settings;
  FuseSettings fuse = fuse_settings;
  ~SettingsGuard() {
    search_settings = search;
    ratchet_settings = ratchet;
    drift_settings = drift;
    fuse_settings = fuse;
  }
};

struct Xmult {
  std::vector<Tree> batch;
  std::vector<double> scores;
  Tree prev;                 // tree of the last replication (autoconstraints)
  bool have_prev = false;
  int replications_done = 0;

  std::uint32_t next_seed() { return static_cast<std::uint32_t>(random_next()) | 1u; }

  // One replication into the batch.
  void replicate() {
    const XmultSettings& x = xmult_settings;
    const std::uint32_t seed = next_seed();
    const std::uint32_t keep = random_state();
    Tree t;
    AutoConstraint ac;
    search_status_code = 0;
    double sc = wagner_build(t, seed);
    set_random_seed(keep);
    if (shell_state.stop_search_flag) return;
    if (by_fits()) {
      // By fits: TBR and the sectors, then the ratchet and drift below.
      sc = fit_swap(t, true);
      sc = run_sectors(t, sc);
    } else {
      sc = swap_steps(t, ac);
    }
    if (x.ratchet > 0 && !shell_state.stop_search_flag) {
      const std::uint32_t s2 = next_seed();
      const std::uint32_t k2 = random_state();
      if (by_fits()) {
        set_random_seed(s2);
        sc = implied_ratchet_run(t, x.ratchet);
      } else {
        sc = ratchet_run(t, s2, -1, 0, x.ratchet, nullptr);
      }
      set_random_seed(k2);
    }
    if (x.drift > 0 && !shell_state.stop_search_flag) {
      const std::uint32_t s2 = next_seed();
      const std::uint32_t k2 = random_state();
      if (by_fits()) {
        set_random_seed(s2);
        sc = implied_drift_run(t, x.drift);
      } else {
        sc = drift_run(t, s2, -1, 0, x.drift, nullptr);
      }
      set_random_seed(k2);
    }
    prev = t;
    have_prev = true;
    batch.push_back(std::move(t));
    scores.push_back(sc);
    ++replications_done;
    if (x.verbose) out_printf("   Replication %i, score %s\n", replications_done, search_score_text(sc).c_str());
  }

  // SPR and TBR by steps, with the autoconstraints of the replication, then the sectors.
  double swap_steps(Tree& t, AutoConstraint& ac) {
    const XmultSettings& x = xmult_settings;
    double sc = 0;
    if (have_prev && x.autoconst == 1) ac.set(prev, t);
    if (!search_settings.skipspr) {
      sc = swap_spr(t, 0, 0, 0);
      if (have_prev && x.autoconst == 2) ac.set(prev, t);
    }
    sc = swap_tbr(t, 0, 0, 0);
    if (have_prev && x.autoconst >= 3) ac.set(prev, t);
    // The groups of the autoconstraint (or the user's) make the sectors of css: the parts
    // where this tree and the previous one disagree.
    return run_sectors(t, sc, &ac);
  }

  // The sectorial searches of a replication: css within the constraints in force, then the
  // autoconstraint (if any) is lifted for rss and xss.
  double run_sectors(Tree& t, double sc, AutoConstraint* ac = nullptr) {
    const XmultSettings& x = xmult_settings;
    const bool sectors = by_sectors();
    if (sectors && x.css && constraints_in_force() && !constraint_defs.positive.empty() && !shell_state.stop_search_flag)
      sc = sector_search_css(t);
    if (ac) ac->clear();
    if (!sectors) return sc;
    if (x.rss && !shell_state.stop_search_flag) sc = sector_search_rss(t);
    if (x.xss && !shell_state.stop_search_flag) sc = sector_search_xss(t);
    return sc;
  }

  double best() const {
    double b = -1;
    for (double s : scores) if (b < 0 || s < b) b = s;
    return b;
  }

  // Replications until `count`, or until one reaches giveupscore.
  void build(int count) {
    const double g = xmult_settings.giveupscore;
    for (int i = 0; i < count && !shell_state.stop_search_flag; ++i) {
      replicate();
      if (g > 0 && !scores.empty() && scores.back() <= g + 1e-8) break;
    }
  }

  // Hybridization of the batch: rounds of as many steps as twice the trees.
  double hybridize(int rounds, double target) {
    const std::uint32_t k2 = random_state();
    double b = best();
    for (int r = 0; r < std::max(1, rounds) && !shell_state.stop_search_flag; ++r) {
      b = hybridize_trees(batch, scores, 2 * static_cast<int>(batch.size()), 0);
      if (target > 0 && b <= target + 1e-8) break;
    }
    set_random_seed(k2 ^ 0x5bd1e995u);
    return b;
  }

  bool use_hybrid = false;   // this batch is hybridized

  double fuse(int rounds, double target) {
    if (batch.size() < 2) return best();
    if (use_hybrid) return hybridize(rounds, target);
    FuseSettings& fs = fuse_settings;
    const FuseSettings keep = fs;
    fs.rounds = rounds;
    const std::uint32_t seed = next_seed();
    const std::uint32_t k2 = random_state();
    const double b = fuse_trees(batch, scores, rounds, target > 0 ? target : 0, seed, true);
    set_random_seed(k2);
    fs = keep;
    return b;
  }
};

// Strict consensus of the trees in the store: its number of groups, and the tree.
// Taxa left out of the consensus checks ("/" and a list after the options).
std::vector<std::uint8_t> consensus_excluded;

int consensus_nodes(Tree& result) {
  std::vector<int> all(tree_store.ntrees);
  for (int k = 0; k < tree_store.ntrees; ++k) all[k] = k;
  result.assign(static_cast<std::size_t>(tree_store.row_size), 0);
  std::vector<std::uint8_t> excluded = consensus_excluded;
  excluded.resize(tree_store.ntax, 0);
  if (!xmult_consensus_hooks.strict) shell::error_exit("Consensus is not available in this build");
  return xmult_consensus_hooks.strict(all, excluded, result.data(), false);
}

void print_xmult_settings() {
  const XmultSettings& x = xmult_settings;
  const SectorSettings& ss = sector_settings;
  out_printf("Settings for new technology searches:\n");
  if (x.level >= 0) out_printf("     * search level %.2f\n", x.level);
  out_printf("     * %i hits to best score, %i replications per batch, %i trees saved per replication\n", x.hits,
             x.replications, x.hold);
  out_printf("     * sectorial searches: %s%s%s%s(sizes %i-%i)\n", x.css ? "CSS " : "", x.rss ? "RSS " : "",
             x.xss ? "XSS " : "", (x.css || x.rss || x.xss) ? "" : "none ", ss.minsize, ss.maxsize);
  out_printf("     * %i rounds of fusing, %i of drift, %i of ratchet\n", x.fuse, x.drift, x.ratchet);
  if (x.autoconst) out_printf("     * autoconstrained builds (%s)\n", x.autoconst == 1 ? "Wagner" : x.autoconst == 2 ? "SPR" : "TBR");
  if (x.targetscore > 0) out_printf("     * target score %s\n", search_score_text(x.targetscore).c_str());
  if (x.consense) out_printf("     * stabilize consensus %i times\n", x.consense);
  out_printf("     * update %s, multiply %s, keepall %s, xmix %s\n", x.update ? "on" : "off", x.multiply ? "on" : "off",
             x.keepall ? "on" : "off", x.xmix ? "on" : "off");
}

int number_after(const char* what) {
  const int c = peek_char();
  if (!std::isdigit(c)) error_exitf("Give number for %s", what);
  return read_int();
}

double real_after(const char* what) {
  const int c = peek_char();
  if (!std::isdigit(c) && c != '.') error_exitf("Give number for %s", what);
  return read_real();
}


bool xmult_option(std::string w) {
  XmultSettings& x = xmult_settings;
  bool off = false;
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(w.c_str(), name) == 0; };
  if (w.size() > 2 && w[0] == 'n' && w[1] == 'o' && !is("nodes", 3)) {
    off = true;
    w = w.substr(2);
  }
  if (is("hits", 2)) {
    if (off) { x.hits = 1; return true; }
    const int n = number_after("hits");
    if (n < 1) error_exit("Number of hits must be above 0");
    x.hits = n;
  } else if (is("replications", 3)) {
    x.replications = off ? 0 : number_after("replications");
  } else if (is("hold", 2)) {
    if (off) { x.hold = 1; return true; }
    const int n = number_after("hold");
    if (n < 1) error_exit("Trees to hold per replication must be above 0");
    x.hold = n;
  } else if (is("fuse", 2)) {
    const int n = off ? 0 : number_after("fuse");
    if (n > 100) error_exit("Can't do more than 100 rounds of fusing");
    x.fuse = n;
  } else if (is("drift", 2)) {
    x.drift = off ? 0 : number_after("drift");
  } else if (is("ratchet", 2)) {
    x.ratchet = off ? 0 : number_after("ratchet");
  } else if (is("rebuild", 3)) {
    const int n = off ? 0 : number_after("rebuild");
    if (n > 0) error_exit("Rebuilding is not available yet (use rebuild 0)");
    x.rebuild = 0;
  } else if (is("rss", 3)) {
    x.rss = !off;
  } else if (is("css", 3)) {
    x.css = !off;
  } else if (is("xss", 3)) {
    x.xss = !off;
  } else if (is("autoconst", 2)) {
    const int n = off ? 0 : number_after("autoconst");
    if (n > 4) error_exit("Autoconstraints can be 0-4");
    x.autoconst = n;
  } else if (is("xmix", 2)) {
    x.xmix = !off;
  } else if (is("prvmix", 2)) {
    x.prvmix = !off;
  } else if (is("keepall", 2)) {
    x.keepall = !off;
  } else if (is("targetscore", 2)) {
    x.targetscore = off ? -1.0 : real_after("targetscore");
    if (x.targetscore == 0) x.targetscore = -1.0;
  } else if (is("update", 2)) {
    x.update = !off;
  } else if (is("giveupscore", 2)) {
    x.giveupscore = off ? -1.0 : real_after("giveupscore");
  } else if (is("multiply", 2)) {
    x.multiply = !off;
  } else if (is("dumpfuse", 2)) {
    x.dumpfuse = !off;
  } else if (is("filter", 3)) {
    x.filter = off ? 0 : number_after("filter");
  } else if (is("gfuse", 2)) {
    const int n = off ? 0 : number_after("gfuse");
    if (n != 0 && (n < 2 || n > 100)) error_exit("Global fusing must be every 2-100 hits");
    x.gfuse = n;
  } else if (is("hfuse", 2)) {
    const int n = off ? 0 : number_after("hfuse");
    if (n != 0 && (n < 5 || n > 100)) error_exit("Global hybridization must be every 5-100 hits");
    x.hfuse = n;
  } else if (is("hybrid", 2)) {
    x.hybrid = !off;
    if (!off && (peek_char() == 'x' || peek_char() == 'X')) {
      next_char();
      const double F = real_after("hybrid");
      if (F < 1) error_exit("Factor for hybridization must be at least 1");
      x.hybrid_factor = F;
    }
  } else if (is("picktype", 2)) {
    x.picktype = off ? 0 : 1.5;
    if (!off && (std::isdigit(peek_char()) || peek_char() == '.')) x.picktype = read_real();
  } else if (is("consense", 3)) {
    x.consense = off ? 0 : (std::isdigit(peek_char()) ? read_int() : 1);
  } else if (is("conbase", 4)) {
    const int n = number_after("conbase");
    if (n < 1 || n > 100) error_exit("Conbase must be 1-100");
    x.conbase = n;
  } else if (is("confactor", 4)) {
    const int n = number_after("confactor");
    if (n < 10 || n > 100) error_exit("Confactor must be 10-100");
    x.confactor = n;
  } else if (is("conmax", 4)) {
    const int n = number_after("conmax");
    if (n < 5 || n > 100) error_exit("Conmax must be 5-100");
    x.conmax = n;
  } else if (is("retouch", 3)) {
    x.retouch = off ? 0 : number_after("retouch");
  } else if (is("level", 2)) {
    if (off) { x.level = -1.0; return true; }
    const double L = real_after("level");
    if (L < 0 || L > 10) error_exitf("Can't set search level to %.2f (level must be 0-10)", L);
    int taxa = -1;
    if (std::isdigit(peek_char())) taxa = read_int();
    if (taxa < 0) {
      // Counted from the active taxa of the data set.
      if (!dataset::dataset.loaded) error_exit("setting level without specifying taxon number");
      optim::ensure_packed();
      taxa = optim::packed.nterm;
      if (taxa <= 0) error_exit("setting level without specifying taxon number");
    }
    set_search_level(L, taxa);
  } else if (is("chklevel", 3)) {
    if (off) { x.chklevel = 0; return true; }
    x.chkfactor = 0;
    if (peek_char() == '+') {
      next_char();
      const double F = real_after("chklevel");
      if (F <= 0 || F >= 2) error_exit("Factor for chklevel must be above 0 and below 2");
      x.chkfactor = F;
    }
    const int n = number_after("chklevel");
    if (n > 10) error_exit("Chklevel can be up to 10");
    x.chklevel = n;
  } else if (is("verbose", 2)) {
    x.verbose = !off;
  } else if (is("pcoord", 2)) {
    if (!off) error_exit("Option \"pcoord\" is not available yet");
  } else if (is("ras", 3)) {
    search_settings.sequence_kind = sequence_plain;
    search_settings.lookahead = 0;
  } else {
    return false;
  }
  return true;
}

void run_xmult() {
  qax::trees::require_data();
  XmultSettings& x = xmult_settings;
  search_prepare();
  SettingsGuard guard;
  SearchRunning running;
  if (x.consense > 0 && optim::collapse_settings.rule != optim::collapse_tbr) {
    out_printf("To stabilize consensus, tree collapsing will be re-set to TBR\n");
    optim::collapse_settings.rule = optim::collapse_tbr;
  }
  // Settings the replications can't follow are named before the search starts.
  if (x.hold > 1)
    out_printf("NOTE: each replication keeps its best tree only: hold %i not applied (fusing gathers the batch)\n",
               x.hold);
  if (by_fits() && x.autoconst > 0)
    out_printf("NOTE: under implied weighting replications use TBR, ratchet, drift and fusing by fits, and sectors "
               "searched by steps are taken by fits; autoconstraints are not applied\n");
  if (!by_sectors() && (x.rss || x.css || x.xss))
    out_printf("NOTE: sectorial searches are not applied %s\n", sector_obstacle());
  if (x.autoconst > 3) out_printf("NOTE: autoconstraints are taken after TBR at most: autoconst %i acts as 3\n", x.autoconst);
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  sector_replacements = 0;
  set_random_seed(command_seed());
  Xmult run;
  double target = x.targetscore > 0 ? x.targetscore : -1.0;
  const bool user_target = target > 0;
  int hits = 0, stabilized = 0, next_check = x.conbase, checks = 0;
  int last_nodes = -1;
  std::vector<int> node_counts;
  Tree consensus;
  bool interrupted = false;
  const double eps = 1e-8;
  while (!shell_state.stop_search_flag) {
    const bool hits_done = hits >= x.hits;
    const bool stable_done = x.consense <= 0 || stabilized >= x.consense;
    if (hits_done && stable_done) break;
    // A new hit: a batch, independent of the trees found before.
    run.batch.clear();
    run.scores.clear();
    run.have_prev = false;
    run.build(std::max(1, x.replications));
    if (shell_state.stop_search_flag) break;
    run.use_hybrid = x.hybrid != 0 && by_hybrid();
    if (x.picktype > 0 && run.batch.size() > 1) {
      const double fus = fusability_score(run.batch);
      run.use_hybrid = fus < x.picktype && by_hybrid();
      if (x.verbose) {
        out_printf("  NOTE: Picking ");
        out_printf(run.use_hybrid ? "tree hybridization " : "tree fusing ");
        out_printf("to improve the trees found (score %.3f)\n", fus);
      }
    }
    if (run.use_hybrid) {
      // Hybridization works on a larger batch.
      const int want = static_cast<int>(x.replications * x.hybrid_factor);
      const int more = want - static_cast<int>(run.batch.size());
      if (more > 0) {
        if (x.verbose)
          out_printf("  Will complete %i builds to input to hybridization (%i more needed) \n", want, more);
        run.build(more);
      }
    }
    double best = x.fuse > 0 || run.use_hybrid ? run.fuse(std::max(1, x.fuse), target) : run.best();
    int failures = 0, retouches = 0;
    while (target > 0 && best > target + eps && !shell_state.stop_search_flag) {
      // A score at giveupscore is as good as this hit gets.
      if (x.giveupscore > 0 && best <= x.giveupscore + eps) break;
      if (retouches < x.retouch) {
        ++retouches;
        for (std::size_t k = 0; k < run.batch.size() && !shell_state.stop_search_flag; ++k) {
          if (x.rss && by_sectors()) run.scores[k] = sector_search_rss(run.batch[k]);
          if (x.drift > 0) {
            const std::uint32_t s2 = run.next_seed();
            const std::uint32_t k2 = random_state();
            if (by_fits()) {
              set_random_seed(s2);
              run.scores[k] = implied_drift_run(run.batch[k], x.drift);
            } else {
              run.scores[k] = drift_run(run.batch[k], s2, -1, 0, x.drift, nullptr);
            }
            set_random_seed(k2);
          }
        }
      } else {
        if (x.xmix) {
          // Builds constrained by the best tree of the batch (or the last tree in memory).
          if (x.prvmix && tree_store.ntrees > 0) {
            const int last = tree_store.ntrees - 1;
            run.prev.assign(trees::tree_row(last), trees::tree_row(last) + tree_store.row_size);
          } else {
            const auto it = std::min_element(run.scores.begin(), run.scores.end());
            run.prev = run.batch[static_cast<std::size_t>(it - run.scores.begin())];
          }
          run.have_prev = x.autoconst > 0;
        }
        run.build(std::max(1, x.replications / 2));
      }
      best = run.fuse(std::max(1, x.fuse), target);
      ++failures;
      if ((x.filter > 0 && failures >= x.filter) || x.dumpfuse) {
        // Drop the suboptimal trees of the batch.
        std::vector<Tree> kept;
        std::vector<double> ks;
        for (std::size_t k = 0; k < run.batch.size(); ++k)
          if (run.scores[k] <= best + eps) { kept.push_back(run.batch[k]); ks.push_back(run.scores[k]); }
        run.batch = std::move(kept);
        run.scores = std::move(ks);
        failures = 0;
      }
      show_progress(hits, x.hits, "Hits");
    }
    if (shell_state.stop_search_flag) break;
    // A hit.
    if (target < 0 || best < target - eps) {
      if (target < 0 || x.update || user_target) {
        if (target > 0 && x.verbose) out_printf("   New best score %s\n", search_score_text(best).c_str());
        if (target < 0 || x.update) {
          target = best;
          hits = 0;
          stabilized = 0;
          checks = 0;
          next_check = x.conbase;
          last_nodes = -1;
          node_counts.clear();
          if (!x.keepall) {
            tree_store.ntrees = 0;
            tree_store.trees_changed = 1;
            store_begin();
          }
        }
      }
    }
    ++hits;
    if (x.multiply && run.batch.size() > 1) {
      // Suboptimal trees fused with the optimal ones, exchanges of equal score accepted.
      FuseSettings& fs = fuse_settings;
      const int eq = fs.equals;
      fs.equals = 1;
      run.fuse(std::max(1, x.fuse), 0);
      fs.equals = eq;
    }
    for (std::size_t k = 0; k < run.batch.size(); ++k) {
      if (!x.keepall && run.scores[k] > std::max(target, best) - 1e-9 + eps) continue;
      if (tree_store.ntrees >= tree_store.maxtrees) break;
      store_add(run.batch[k], run.scores[k]);
    }
    if (x.gfuse > 0 && hits % x.gfuse == 0 && tree_store.ntrees > 1) {
      std::vector<Tree> all;
      std::vector<double> sc;
      for (int k = 0; k < tree_store.ntrees; ++k) all.emplace_back(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
      const std::uint32_t s2 = run.next_seed();
      const std::uint32_t k2 = random_state();
      const double b = fuse_trees(all, sc, std::max(1, x.fuse), 0, s2, true);
      set_random_seed(k2);
      for (std::size_t k = 0; k < all.size(); ++k)
        if (sc[k] <= b + eps && tree_store.ntrees < tree_store.maxtrees) store_add(all[k], sc[k]);
      if (b < target - eps) target = b;
    }
    if (x.hfuse > 0 && hits % x.hfuse == 0 && tree_store.ntrees > 1 && by_hybrid()) {
      std::vector<Tree> all;
      std::vector<double> sc;
      for (int k = 0; k < tree_store.ntrees; ++k) {
        all.emplace_back(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
        sc.push_back(tree_store.scores[k]);
      }
      const std::uint32_t k2 = random_state();
      const double b = hybridize_trees(all, sc, 2 * static_cast<int>(all.size()), 0);
      set_random_seed(k2 ^ 0x2545f491u);
      for (std::size_t k = 0; k < all.size(); ++k)
        if (sc[k] <= b + eps && tree_store.ntrees < tree_store.maxtrees) store_add(all[k], sc[k]);
      if (b < target - eps) target = b;
    }
    if (x.verbose)
      out_printf("   Hit %i of score %s (%i trees in memory)\n", hits, search_score_text(target).c_str(), tree_store.ntrees);
    if (x.consense > 0 && hits >= next_check) {
      const int nodes = consensus_nodes(consensus);
      ++checks;
      if (nodes == last_nodes) ++stabilized;
      last_nodes = nodes;
      node_counts.push_back(nodes);
      next_check = hits + std::min(x.conmax, std::max(x.conbase, hits * x.confactor / 100));
      if (x.verbose) {
        out_printf("   Calculated consensus (%i nodes) (%s)\n", nodes, search_score_text(target).c_str());
        if (stabilized) out_printf("   Consensus stabilized %i times", stabilized);
        else out_printf("   Consensus not yet stabilized");
        if (stabilized >= x.consense) out_printf("\n   No need to continue searching...\n");
        else out_printf("\n   Next consensus calculation: %i more hits\n", next_check - hits);
      }
    }
    if (x.chklevel > 0 && hits % x.chklevel == 0) retune_search_level(hits, x.chklevel, 1);
    show_progress(hits, x.hits, "Hits");
  }
  interrupted = shell_state.stop_search_flag != 0;
  if (interrupted) {
    out_printf("Search was interrupted...\n");
    // What the last batch found is not lost.
    for (std::size_t k = 0; k < run.batch.size(); ++k) {
      if (tree_store.ntrees >= tree_store.maxtrees) break;
      if (target < 0 || run.scores[k] < target - eps) {
        target = run.scores[k];
      }
    }
    for (std::size_t k = 0; k < run.batch.size(); ++k)
      if (tree_store.ntrees < tree_store.maxtrees && run.scores[k] <= target + eps) store_add(run.batch[k], run.scores[k]);
  } else {
    out_printf("Completed search.\n");
  }
  // Only the trees of best score stay (all with keepall).
  double best = -1;
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (best < 0 || tree_store.scores[k] < best) best = tree_store.scores[k];
  if (!x.keepall && best >= 0) store_discard_above(0, best + search_settings.suboptimal, -1);
  store_drop_collapsed_duplicates();
  tag_search_trees("new_tech_sch");
  if (user_target) out_printf("Target score %s hit %i times.\n", search_score_text(target).c_str(), hits);
  else out_printf("No target score defined.  Best score hit %i times.\n", hits);
  out_printf("Best score: %s.  %i trees retained.\n", search_score_text(best < 0 ? 0 : best).c_str(), tree_store.ntrees);
  if (x.consense > 0 && !consensus.empty() && tree_store.ntrees > 0) {
    const int k = trees::tree_store_add(-1, true);
    std::copy(consensus.begin(), consensus.end(), trees::tree_row(k));
    tree_store.scores[k] = 0;
    tree_store.trees_changed = 1;
    store_begin();
    out_printf("\nConsensus (%i nodes, stabilized %i times) saved as tree %i\n", last_nodes, stabilized, k);
    out_printf("Number of nodes in each stabilization: ");
    for (int n : node_counts) out_printf(" %i", n);
    out_printf("\n");
  }
  last_best_score = best;
  last_hits = hits;
  xmult_hits = hits;
  xmult_score = best;
  search_status_code = 0;
}

}  // namespace

void cmd_xmult() {
  const XmultSettings saved = xmult_settings;
  const SectorSettings saved_sectors = sector_settings;
  const SearchSettings saved_search = search_settings;
  int c = peek_char();
  bool run = true;
  if (c == '=' || c == ':') {
    next_char();
    run = c == '=';
    if (!run && peek_char() == ';') {
      print_xmult_settings();
      return;
    }
  } else if (c != ';') {
    next_char();
    error_exitf("Wrong search argument: %c", c);
  }
  consensus_excluded.clear();
  try {
    while (peek_char() != ';' && peek_char() != '/') {
      std::string w = read_option_word();
      if (!xmult_option(w)) error_exitf("Unidentified string in xmult options: %s", w.c_str());
    }
    if (!xmult_consensus_hooks.read_excluded_taxa) shell::error_exit("Consensus is not available in this build");
    consensus_excluded = xmult_consensus_hooks.read_excluded_taxa();
    // Options that can't go together leave the settings as they were.
    const XmultSettings& x = xmult_settings;
    if (x.filter > 0 && x.keepall)
      error_exit("Options \"filter\" and \"keep\" are not valid together; use one or the other");
    if (x.filter > 0 && x.filter <= x.retouch) error_exit("Number for \"filter\" must be larger than for \"retouch\"");
    if (x.targetscore > 0 && x.fuse <= 0 && !x.hybrid)
      error_exit("To search for a target score, must use fusing or hybridization");
  } catch (const CommandFailed&) {
    xmult_settings = saved;
    sector_settings = saved_sectors;
    search_settings = saved_search;
    throw;
  }
  if (!run) return;
  run_xmult();
}

}  // namespace qax::search
