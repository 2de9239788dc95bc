// Command handlers of the pruned consensus forms (prunnelsen, pruncom, prunmajor,
// prupdn), of resols, and the placement form of nelsen. All fail by error_exit.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::support {

void cmd_prunnelsen();
void cmd_pruncom();
void cmd_prunmajor();
void cmd_prupdn();
void cmd_resols();
// nelsen N/L/P after the second "/": reads P, shows where the trees put each taxon of P
// on the consensus of trees without L and P.
void nelsen_placement(const std::vector<int>& trees, const std::vector<std::uint8_t>& user);

}  // namespace qax::support
