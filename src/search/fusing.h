// Tree fusing: groups shared by two trees have their resolutions exchanged when that
// lowers the score. An exchange is costed without building a tree: the donor's subtree
// cost replaces the receiver's, and only the path from the group to the root is
// re-evaluated. `fuse_trees` runs rounds of fusing over a set of trees; the ratchet, drift,
// sectors and xmult call it on the trees they find.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::search {

struct FuseSettings {
  int equals = 0;       // accept exchanges of equal score
  int beststart = 1;    // start from the best tree (otherwise a random one)
  int choose = 0;       // only the one best exchange of a pair
  int repeat = 0;       // repeat a pair until no exchange improves
  int swap = 1;         // TBR after the exchanges of a round
  int minfork = 3;      // skip groups with fewer children than this in the consensus
  int rounds = 5;       // rounds of a run
  int keepall = 1;      // keep the trees found
  int xroot = 0;        // random rootings per fuse
  int autostop = 3;     // rounds without improvement that end the run (0: never)
  int replace = 1;      // a better child replaces its source (hybridization)
  int clog = 15;        // at this many times the initial set, keep the best part
  int hybrid_times = 0; // hybridizations per round (0: fusing)
  int hybrid_rounds = 1;// rounds of hybridization
  int hybrid_pass = 50; // best trees passed from a round to the next (0: as many as came in)
  double picktype = 0;  // threshold of the automatic choice (0: off)
};
extern FuseSettings fuse_settings;

// Exchanges into `receiver` the resolutions of groups shared with `donor` that lower its
// score (or keep it, under `equals`), largest groups first; nested groups of an exchanged
// group are not exchanged again in the pass. Both trees are parent arrays in data set
// numbering, binary on the active taxa. Returns the number of exchanges; `score` (if given)
// receives the receiver's new score. `equals`/`minfork`/`choose` as in the settings.
// `root_terminal` (packed number) roots both trees on another terminal for the groups.
int fuse_pair(std::vector<std::int32_t>& receiver, const std::vector<std::int32_t>& donor, double* score = nullptr,
              int equals = -1, int root_terminal = 0);

// fuse_pair with each exchange scored on the whole tree it makes, for scores that can't be
// taken apart by subtree (fits, step-matrix and continuous columns); groups are taken on
// the rooting at terminal 0 only (another root_terminal exchanges nothing).
int whole_fuse_pair(std::vector<std::int32_t>& receiver, const std::vector<std::int32_t>& donor, double* score,
                    int equals, int root_terminal);
// Score of a tree (data set parent array) as fusing compares them: the fit under implied
// weighting, else the length with every column.
double whole_tree_score(const std::vector<std::int32_t>& parent);

// Rounds of fusing over `trees` (scores recomputed); trees found better than the set's
// best, or new, are added to the set (and to `scores`). Returns the best score; stops as
// soon as a score at or below stop_score (when above 0) is found. `quiet` silences the
// reports of new bests. Reseeds the generator from `seed` when not 0.
double fuse_trees(std::vector<std::vector<std::int32_t>>& trees, std::vector<double>& scores, int rounds,
                  double stop_score, std::uint32_t seed, bool quiet);

// Rounds done by the last fuse_trees.
extern int fuse_rounds_done;

// Mean over random pairs of 100 * (groups exchangeable between them) / taxa.
double fusability_score(const std::vector<std::vector<std::int32_t>>& trees);

// Hybridization: `times` steps, each between two random trees of the set, whose two
// completed and swapped children replace their parents when better (`replace`) or join the
// set; a set grown to `clog` times its start keeps its best part; at the end at most
// `keep` trees (the best) stay, all with 0. Returns the best score.
double hybridize_trees(std::vector<std::vector<std::int32_t>>& trees, std::vector<double>& scores, int times, int keep);

// Commands.
void cmd_tfuse();
void cmd_hybrid();

}  // namespace qax::search
