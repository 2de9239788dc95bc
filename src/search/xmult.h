// xmult, the driven search: batches of replications (Wagner tree, swapping, sectorial
// searches, ratchet, drift), fused, repeated until the best score has been hit the number
// of times asked for (or the consensus of the hits stops changing). One number, the level,
// sets its parameters from the number of taxa.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::search {

struct XmultSettings {
  int hits = 1;               // hits to the best score
  int replications = 4;       // replications of a batch
  int hold = 1;               // trees saved per replication
  int fuse = 1;               // fusing rounds
  int drift = 5;              // drift cycles per replication
  int ratchet = 0;            // ratchet iterations per replication
  int rebuild = 0;            // rebuild cycles
  int rss = 1, css = 1, xss = 0;  // sectorial searches
  int autoconst = 1;          // constrain by the previous tree: 1 Wagner, 2 SPR, 3 TBR
  int xmix = 0;               // failed fusings restart as autoconstrained
  int prvmix = 0;             // autoconstrain with the last tree in memory
  int keepall = 0;            // keep all trees
  double targetscore = -1.0;  // score to reach (below 0: none)
  int update = 1;             // a better score becomes the target
  double giveupscore = -1.0;  // give up a hit at this score
  int multiply = 1;           // after a hit, fuse suboptimal trees with the optimal ones
  int dumpfuse = 0;           // drop fused trees not at the target
  int filter = 0;             // after this many failed fusings, drop suboptimal trees
  int gfuse = 0;              // fuse all hits every this many hits
  int hfuse = 0;              // hybridize all hits every this many hits
  int hybrid = 0;             // hybridize batches instead of fusing them
  double hybrid_factor = 5.0; // a batch to hybridize is this many times the replications
  double picktype = 0;        // choose fusing or hybridization by fusability (0: off)
  int consense = 0;           // stabilise the consensus this many times
  int conbase = 10;           // hits to the first check
  int confactor = 75;         // percent of hits for the next check
  int conmax = 12;            // most new hits between checks
  int retouch = 0;            // sectors and drift again before a new batch
  double level = -1.0;        // level in force (below 0: none)
  int chklevel = 0;           // re-check the parameters every this many hits
  double chkfactor = 0;       // step of the level when re-checking (0: tune parameters)
  int verbose = 0;            // verbose reports
};
extern XmultSettings xmult_settings;

// Parameters of a search level (0 to 10) for `taxa` taxa, into the xmult and sector settings.
void set_search_level(double level, int taxa);

// Re-tuning after a check: hits needed against the period of the check.
void retune_search_level(int level_hits, int period, int changing);

// Hits and score of the last xmult.
extern int xmult_hits;
extern double xmult_score;

// Commands.
void cmd_xmult();

// The consensus routines xmult summarises its replications with; they belong to a later
// layer and are installed by the application.
struct XmultConsensusHooks {
  int (*strict)(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded, std::int32_t* result,
                bool low_memory) = nullptr;
  std::vector<std::uint8_t> (*read_excluded_taxa)() = nullptr;
};
extern XmultConsensusHooks xmult_consensus_hooks;

}  // namespace qax::search
