// Sectorial searches: a connected part of a big tree, with its subtrees as terminals (HTUs)
// and the rest of the tree as one more terminal, becomes a small data set of its own, made
// of the first-pass sets of those parts with the columns that can't change dropped. The
// small tree is searched, and a better resolution goes back into the big tree.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::search {

enum SectorKind : int { sector_random = 1, sector_constraint = 2, sector_exclusive = 3, sector_diameter = 4 };

struct SectorSettings {
  int kind = sector_random;    // selection of the sectsch command
  int minsize = 45;            // random sector sizes
  int maxsize = 45;
  int selfactor = 50;          // selections per size: taxa * 100 / (size * selfactor)
  std::vector<int> selections; // user counts per size (selfactor = X Y Z), in order
  int increase = 100;          // size grows by this percent
  int moveon = 0;              // failures in a row that end a size (0: never)
  int minfork = 10, maxfork = 1000;  // constraint sectors
  int rounds = 3;              // cycles of constraint sectors
  int xss_begin = 8, xss_end = 12, xss_rounds = 2, xss_global = 4;  // exclusive sectors
  int xeven = 0;               // even chunks
  int chkroot = 0;             // the base of the tree as a chunk of its own
  int godrift = 75;            // sectors from this size are drifted
  int drift = 6;               // drift cycles of a sector
  int gocomb = 0;              // sectors from this size get the combined analysis (0: never)
  int starts = 3;              // Wagner + TBR starts of small sectors
  int combstarts = 4;          // starts of combined analyses
  int fuse = 0;                // rounds of fusing the starts (0: none)
  int global = 10;             // global TBR every this many replacements (small sectors)
  int dglobal = 10;            // the same for drifted sectors
  int noglobal = 0;            // no global TBR
  int equals = 0;              // accept equally good resolutions
  int findscore = 0;           // stop at this score
  int keepall = 1;             // keep the trees (otherwise filter at the end)
  int slack = 0;               // percent more memory
  int xbuffer = 1;             // private buffer for the reduced data
  int safesank = 1;            // strict test of uninformative Sankoff columns
  int recurse = 0;             // recursion levels of user instructions
  int track = 0;               // tracking of big and reduced nodes
  int tree = -1;               // the one tree of the command (-1: all)
  int dss_node = -1, dss_depth = 0;  // diameter sector
};
extern SectorSettings sector_settings;

// Settings of pfijo: perturbation of the tree by chunks whose HTUs take the states of
// one of their descendants.
struct PfijoSettings {
  int numsels = 30;            // cycles
  int phtus = 95;              // constant of the HTU states (the higher, the less perturbed)
  int chunksize = 500;         // terminals of a chunk
  int drift_cycles = 3;        // drift after perturbing: cycles, fitdiff, rfitdiff
  double drift_fitdiff = 3;
  double drift_rfitdiff = 0.1;
  int autofuse = 0;            // fuse the trees every this many cycles (0: never)
  int autofuse_rounds = 3;
  int goback = 0;              // back to the previous tree when worse
  int keepall = 1;             // save the trees as cycles proceed
  int slack = 0;               // extra memory
};
extern PfijoSettings pfijo_settings;

// Counters of the last sectorial search.
extern std::uint64_t sector_replacements;
extern int in_sector;   // above 0 while a reduced data set is searched

// One random selection run over the tree (data set parent array, binary on the active
// taxa); the improved tree is left in `tree`; returns its score.
double sector_search_rss(std::vector<std::int32_t>& tree);
// Exclusive sectors: the tree cut in chunks, each searched.
double sector_search_xss(std::vector<std::int32_t>& tree);
// Constraint sectors: nodes of the constraint tree with their immediate groups.
double sector_search_css(std::vector<std::int32_t>& tree);

// The chunk of inner nodes within `depth` branches of the node holding the flagged taxa
// (data set numbering), searched once; *nodes gets the nodes of the chunk (0: no such node).
double sector_search_dss(std::vector<std::int32_t>& tree, const std::vector<std::uint8_t>& taxa, int depth, int* nodes);
// One cycle of pfijo: every chunk perturbed, then global TBR.
double pfijo_cycle(std::vector<std::int32_t>& tree);
// "R", "C", "X" or "D".
const char* sector_kind_letter(int kind);

// Substitutions whose big-tree score differed from the sector's promise (undone); a
// correct reduction never makes one.
extern int sector_mismatches;

// Why sectorial searches can't run on the data as packed (a phrase to follow "not
// available"), or null when they can.
const char* sector_obstacle();

// Commands.
void cmd_sectsch();
void cmd_pfijo();

}  // namespace qax::search
