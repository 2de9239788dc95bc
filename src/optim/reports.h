// Commands that report scores of the trees in memory (length, scores, cscores, chomo).
// Each reads "N/L" (trees, then characters after "/"), packs the data and fails through
// error_exit without data or trees.
#pragma once

namespace qax::optim {

void cmd_length();
void cmd_scores();
void cmd_cscores();
void cmd_chomo();

}  // namespace qax::optim
