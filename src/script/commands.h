// Commands of the macro language: the switch and its options, variables, and the control
// flow that works on the text of instructions (loops, if, goto, return, ...).
#pragma once

namespace qax::script {

// Installs the hooks of the input stack; called once at start-up.
void install_script_layer();
// Back to the start-up state (macros off, no variables).
void reset_script_state();

// Variables and settings.
void cmd_macro();
void cmd_macfloat();
void cmd_macseed();
void cmd_var();
void cmd_set();
void cmd_setarray();
void cmd_private();
void cmd_safe();
void cmd_resettime();

// Control flow.
void cmd_loop();
void cmd_stop();
void cmd_endloop();
void cmd_setloop();
void cmd_continue();
void cmd_if();
void cmd_else();
void cmd_end();
void cmd_xend();
void cmd_goto();
void cmd_label();
void cmd_return();
void cmd_errmsg();
void cmd_chkbreak();
void cmd_forfiles();
void cmd_killfiles();

// Loops of an inner command loop, and tree and progress helpers.
void cmd_travtree();
void cmd_combine();
void cmd_copytree();
void cmd_progress();
void cmd_iterrecs();
void cmd_maketable();
void cmd_hifile();

// Swap loops over the rearrangements of a tree.
void cmd_sprit();
void cmd_tbrit();
void cmd_resetswap();
void cmd_endswap();
// The branch-and-bound loop over trees built by adding taxa.
void cmd_bandb();
void cmd_cutbranch();
void cmd_endbranch();

// Runs the pending jump to the error target of "goto [", if one was armed and an
// error or break happened; called by the command cycle.
void take_error_goto();

}  // namespace qax::script
