// Handlers of the data set commands (matrix reading and saving, character and taxon
// settings, names and groups). Each reads its own arguments and fails by error_exit.
#pragma once

namespace qax::dataset {

void cmd_xread();
void cmd_xwipe();
void cmd_ccode();
void cmd_ckeep();
void cmd_nstates();
void cmd_taxcode();
void cmd_cnames();
void cmd_taxname();
void cmd_agroup();
void cmd_xgroup();
void cmd_outgroup();
void cmd_blocks();
void cmd_info();

// The saving forms of xread ("*", "-", "[", "!", ":"), positioned at the form character.
void save_matrix();
// xread = forms: "=C T S ..." sets cells, "=!C T S ..." adds states, "= ? Pc Pt" makes
// random cells missing, "==" restores the cells as read. Positioned after the "=".
void edit_cells();
// Next raw character without consuming it (blanks included).
int peek_raw();

}  // namespace qax::dataset
