// Search settings, counters and the entry points of tree building and branch swapping.
// All settings are plain fields of `search_settings`, global for the run; the swappers and
// the Wagner build read them once per call and keep their working sets in the engine.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::search {

enum SequenceKind : int { sequence_plain = 0, sequence_closest = 1, sequence_furthest = 2, sequence_spread = 3 };
enum Swapper : int { swapper_none = 0, swapper_spr = 1, swapper_tbr = 2 };

constexpr int lookahead_all = 1000000000;   // "all remaining taxa"
constexpr int max_replications = 100000;
constexpr double max_suboptimal = 1e8;  // beyond any score difference; larger values act alike

struct SearchSettings {
  int seed = 1;                 // random seed; 0 means time
  int seed_step = 0;            // rseed :N: replication seeds grow by N (0: drawn, never repeated)
  int sequence_kind = sequence_plain;  // what the look-ahead of selected sequences maximises
  int lookahead = 0;            // taxa examined before one is picked (0: plain ras)
  int ias_lookahead = 0;        // ias N: taxa examined for the informativeness order
  int random_insertion = 0;     // branches tried in random order
  int random_outgroup = 0;      // another terminal may start the tree
  int wcluster = 0;             // node clusters from this many taxa on (0: none)
  int clustersize = 15;         // target size of a node cluster
  // mult
  int replications = 10;        // replications of mult
  int hold = 10;                // trees kept per replication
  int swapper = swapper_tbr;    // swapper of mult
  int ratchet = 0;              // ratchet after each replication (not built here)
  int drift = 0;                // drift after each replication (not built here)
  int keepall = 0;              // keep trees of all replications
  int outfreq = 0;              // progress every N clips (0: automatic)
  // bbreak
  int bb_swapper = swapper_tbr; // swapper of bbreak
  int mulpars = 1;              // save all equally good trees
  int fillonly = 0;             // stop when the tree buffer is full
  int safe = 0;                 // re-score the whole tree after each accepted move
  int skipspr = 1;              // skip the SPR phase of a replication
  int randclip = 0;             // clip in random order
  int preproc = 0;              // sort clips by expected gain
  int limit = 0;                // TBR within this many nodes of the clip point (0: none)
  int inters = 0;               // regions keep intersections (1, or 2 with reordered characters)
  int stratswap = 0;            // landmark error margin while swapping
  double suboptimal = 0;        // subopt: trees up to best + this are kept
  double relative_suboptimal = 0; // subopt N x R: the largest relative fit difference
                                  // Bremer supports by TBR look at (0: none given)
};

extern SearchSettings search_settings;

// Settings of the ratchet: perturbations of character weights between TBR searches.
struct RatchetSettings {
  int iterations = 50;          // iterations of a run
  int numsubs = 40;             // moves made under perturbed weights
  int upfactor = 4;             // percent chance of doubling a character's weight
  int downfactor = 4;           // percent chance of setting it to 0
  int equals = 1;               // every third iteration perturbs under the initial weights
  int giveup = 99;              // percent of a pass of clips after which a perturbation stops
  int tradrat = 0;              // perturb by a whole TBR search under the perturbed weights
  int findscore = 0;            // stop at this score or better (0: never)
  int dumpfuse = 1;             // after a failed fusing, drop the suboptimal trees
  int fusefreq = 0;             // fuse the trees found every this many iterations (0: never)
  int fuserounds = 3;           // rounds of that fusing
  int autoconst = 0;            // autoconstrained iterations every this many (0: none)
};
extern RatchetSettings ratchet_settings;

// Counters of the swappers, reset by each search command.
struct Rearrangements {
  std::uint32_t units = 0;      // kept below 1000000000
  std::uint32_t billions = 0;   // overflow of units
  void add(std::uint64_t n) noexcept {
    std::uint64_t u = units + n;
    billions += static_cast<std::uint32_t>(u / 1000000000u);
    units = static_cast<std::uint32_t>(u % 1000000000u);
  }
  [[nodiscard]] std::uint64_t total() const noexcept { return billions * 1000000000ull + units; }
};
extern Rearrangements rearrangements_examined;
extern std::uint64_t replacements_done;   // accepted moves
extern int search_status_code;            // 0 Wagner, 1 SPR, 2 TBR
extern double last_best_score;            // best score of the last search (macros)
extern int last_hits;                     // hits of the last mult

// Hook for constraints, null when not in force.
// A candidate move (clip node, rerooting node, target node) in engine numbering; 0 refuses it.
using CandidateTestFn = int (*)(int clip, int reroot, int target);
extern CandidateTestFn constraint_allows;

// Random numbers: a 31-bit generator under `seed`, reproducible across platforms.
void set_random_seed(std::uint32_t seed) noexcept;
[[nodiscard]] std::uint32_t random_state() noexcept;
[[nodiscard]] int random_next() noexcept;   // 0 .. 2147483647
void random_shuffle(int count, int* array) noexcept;

// Builds a Wagner tree of the active taxa into `parent_array` (data set numbering, 2*ntax-1
// cells). Returns its score; on interruption returns -1 with the tree unfinished.
double wagner_build(std::vector<std::int32_t>& parent_array, std::uint32_t seed);

// Swaps the tree; mode 0 hill-climbs, above 0 saves equal trees into the store from `first`
// on up to `limit` trees, below 0 as 0 with the tree SPR-optimal. Returns the final score.
// The tree in parent_array is replaced by the swapped tree.
double swap_tbr(std::vector<std::int32_t>& parent_array, int first, int mode, int limit);
double swap_spr(std::vector<std::int32_t>& parent_array, int first, int mode, int limit);

// Settings of drift: perturbations that accept worse moves under a bound on their relative
// fit difference.
struct DriftSettings {
  int iterations = 30;          // cycles of a run
  int numsubs = 60;             // moves of a perturbation
  double fitdiff = 1.0;         // largest score increase of a move
  double rfitdiff = 0.2;        // largest relative fit difference of a move
  double xfactor = 3.0;         // larger values reject worse moves more often
  int equals = 1;               // even cycles take no worse moves
  int giveup = 99;              // percent of a pass of clips after which a perturbation stops
  int pert = 1;                 // 0: no worse moves at all
  int flat = 0;                 // first cycles with rflat and flatnumsubs
  double rflat = 0.0;           // relative fit difference of those cycles
  int flatnumsubs = 60;         // moves of those cycles
  int findscore = 0;            // stop at this score or better (0: never)
  int dumpfuse = 1;             // as in the ratchet
  int fusefreq = 0;
  int fuserounds = 3;
  int autoconst = 0;
};
extern DriftSettings drift_settings;

// Limits of the worse moves a perturbation may take (mode 1); mode 0 takes none.
struct PerturbLimits {
  double fitdiff = 0;           // largest score increase
  double rfd = 0;               // largest relative fit difference
  double xfactor = 3.0;         // rejection factor
};

// A pass of TBR over the clips in random order that makes one move per clip, and stops
// after `moves` moves or when `giveup` percent of the clips are done. Mode 0 takes moves
// not worse under the weights in force: the best when one is better, otherwise one of the
// equal ones at random. Mode 1 takes the first move found that is not worse, or worse but
// accepted under `limits` (a random test that grows stricter with the excess accumulated in
// the pass, and the relative fit difference). Returns the score; sets *all_failed when no
// clip had a move at all.
double swap_perturb(std::vector<std::int32_t>& parent_array, int mode, int moves, int giveup,
                    const PerturbLimits& limits = PerturbLimits{}, bool* all_failed = nullptr);

// Drift from the tree in parent_array; arguments and result as ratchet_run.
double drift_run(std::vector<std::int32_t>& parent_array, std::uint32_t seed, int first, int limit, int iterations,
                 int* iterations_done);

// Ratchet from the tree in parent_array: `iterations` cycles of perturbation and TBR under
// the initial weights. With first >= 0 the trees of best score go into the store from
// `first` on, up to `limit` trees, and each cycle starts from the best tree so far; with
// first < 0 nothing is stored and each cycle goes on from the tree of the last. The best
// tree is left in parent_array; returns its score. Weights are restored on every exit.
double ratchet_run(std::vector<std::int32_t>& parent_array, std::uint32_t seed, int first, int limit,
                   int iterations, int* iterations_done);

// Start-up values of settings and counters.
void reset_search_state();

// Commands.
void cmd_mult();
void cmd_bbreak();
void cmd_rseed();
void cmd_subopt();
void cmd_ratchet();
void cmd_drift();

}  // namespace qax::search
