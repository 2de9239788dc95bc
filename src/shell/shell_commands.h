// Handlers of the shell's own commands: input, output channels, memory and the
// shared switches. Each reads its own arguments and fails through error_exit.
#pragma once

#include <cstdint>

#include <string>

namespace qax::shell {

void cmd_exit();
void cmd_bground();
void cmd_procedure();
void cmd_run();
void cmd_run_file();
void cmd_recurse();
void cmd_mxproc();
void cmd_echo();
void cmd_quote();
void cmd_log();
void cmd_silent();
void cmd_beep();
void cmd_warn();
void cmd_naked();
// "naked [" (wide diagrams) and "naked ]" (narrow): installed by the tree layer, which
// prints the report; without it these forms fail as unknown switches.
extern void (*tree_format_hook)(bool narrow);
void cmd_macreport();
void cmd_break();
void cmd_screen();
void cmd_cls();
void cmd_txtsize();
void cmd_svtxt();
void cmd_lquote();
void cmd_pause();
void cmd_report();
void cmd_watch();
void cmd_tables();
void cmd_cdir();
void cmd_rdir();
void cmd_timeout();
void cmd_vversion();
void cmd_thanks();
void cmd_mxram();
void cmd_macros_separator();
void cmd_macro_not_available();

// Readers that procedure hands a file to, installed by the subsystems that own them.
// Each takes the file name; the NEXUS reader gets an open level positioned after
// "#NEXUS". Null means the format is not available yet.
struct ImportHooks {
  void (*nexus)() = nullptr;                            // reads from the current level
  void (*fasta)(const std::string& name, int group) = nullptr;  // procedure & [=N] name
  void (*newick)(const std::string& name) = nullptr;    // procedure [ name
  // Any other file, just opened at its start: true when the hook recognised the
  // format (a PHYLIP header) and took the file, false to read it as commands.
  bool (*other_format)() = nullptr;
};
extern ImportHooks import_hooks;

// What mxram needs to know of the data in memory; the data subsystems install these.
struct MemoryHooks {
  bool (*data_loaded)() = nullptr;   // a matrix is in memory
  void (*discard_data)() = nullptr;  // forget data, trees and names (the arena is re-claimed)
  int (*ntax)() = nullptr;           // taxa of the matrix
  int (*nchar)() = nullptr;          // characters of the matrix
  int (*ntrees)() = nullptr;         // trees in the tree buffer
  int (*vault_trees)() = nullptr;    // trees in the vault
  // Bytes held outside the arena by the regions mxram reports (null: none).
  std::uint64_t (*tree_bytes)() = nullptr;        // tree buffer and vault
  std::uint64_t (*optimization_bytes)() = nullptr;  // packed matrix and node sets
  std::uint64_t (*constraint_bytes)() = nullptr;  // constraint definitions
  std::uint64_t (*name_bytes)() = nullptr;        // character and state names
};
extern MemoryHooks memory_hooks;

// The version banner (vversion, and start-up without arguments).
void print_version_banner();

// Shared switch: "=" on, "-" off, "/" toggle; prints "<label> is ON/OFF" when report is on.
// Returns true if a switch character was read.
bool read_switch(int& flag, const char* label);

// Steps run by exit before the process ends (auto-save, closing tree files, ...).
void add_exit_step(void (*step)());

}  // namespace qax::shell
