// The command table and its dispatch. The table is ordered data: the first record of
// which the typed word is a prefix wins, so the order decides every abbreviation.
// Records after the "\nMACROS:" separator work only with macros on and by full name.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qax::shell {

using Handler = void (*)();

enum Topic : std::uint32_t {
  topic_input = 0x1, topic_output = 0x2, topic_save = 0x4, topic_mapping = 0x8,
  topic_searching = 0x10, topic_diagnosis = 0x20, topic_compare = 0x40,
  topic_consensus = 0x80, topic_settings = 0x200, topic_various = 0x400,
  topic_scripts = 0x800, topic_memory = 0x1000, topic_supports = 0x2000,
  topic_trees = 0x4000, topic_characters = 0x8000, topic_weights = 0x10000,
};

struct CommandRecord {
  const char* name;     // the full command word; null ends the table
  Handler handler;      // reads its own arguments
  int timed;            // watch reports this command's seconds
  std::uint32_t topics; // help topics
};

// The table, installed by the application at start-up.
void install_command_table(const CommandRecord* table, const CommandRecord* run_file_record);
const CommandRecord* command_table();
int ordinary_command_count();          // index of "zzz"
const CommandRecord* current_record(); // record being run, or null

// One command: reads the word, finds it, runs it under protected_call.
void read_and_dispatch();

// Zero when word is a prefix of entry (near-match of options may accept more).
int is_prefix(std::string_view word, std::string_view entry);

// Steps run after every command's handler, whether it failed or not (derived data that
// settings commands may have made stale is dropped here).
void add_after_command_step(void (*step)());

// While set, words that only exist inside a script body (killtrav, skipdes, ...) are
// offered to this hook before the table; it returns true when it ran the word.
extern bool (*inner_command_word)(const std::string& word);

// Help on the expressions of the macro language: all of them (empty word) or one.
extern void (*expression_help)(const std::string& word);

// The guard of the macro-only commands.
void macro_command_guard();

// Help texts: keyed by command name.
using HelpLookup = const char* (*)(std::string_view name);
void install_help_lookup(HelpLookup fn);
void print_command_help(const CommandRecord& rec);
void cmd_help();

// Handler for commands whose subsystem is not available in this build.
void cmd_not_available();

}  // namespace qax::shell

namespace qax::shell {
// The word as typed for the command being run (lower case).
const std::string& typed_command_word();
// Directory searched for <word>.run files besides the current one (rdir).
extern std::string run_path;
}  // namespace qax::shell
