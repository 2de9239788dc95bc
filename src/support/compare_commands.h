// Commands comparing trees: tcomp (groups absent, Robinson-Foulds, triplets) and sprdiff
// (heuristic SPR distance).
#pragma once

namespace qax::support {

// Settings of sprdiff that outlive a command.
struct SprdiffSettings {
  double weight_constant = 0;   // K of weighted moves (0: raw moves)
  int violations = 1;           // moves from a node to its ancestor allowed
  int polycount = 0;            // moves resolving or collapsing polytomies are counted
  int halvepoly = 0;            // those moves count one half each
};
extern SprdiffSettings sprdiff_settings;

void cmd_tcomp();
void cmd_sprdiff();

}  // namespace qax::support
