// Command lookup, dispatch and help.
#include "shell/commands.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "shell/arena.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/match.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::shell {

std::string run_path;

namespace {

const CommandRecord* table_ = nullptr;
const CommandRecord* run_file_record_ = nullptr;
const CommandRecord* current_ = nullptr;
int ordinary_count_ = 0;
std::string typed_word_;
HelpLookup help_lookup_ = nullptr;
std::vector<void (*)()> after_command_steps_;

constexpr const char* separator_name = "\nMACROS:";

struct TopicName {
  const char* word;
  std::uint32_t bit;
};
// "weightgs" is the topic word as users have always typed it: "weight" selects it.
constexpr TopicName topic_names[] = {
    {"input", topic_input},         {"output", topic_output},       {"save", topic_save},
    {"mapping", topic_mapping},     {"searching", topic_searching}, {"diagnosis", topic_diagnosis},
    {"compare", topic_compare},     {"consensus", topic_consensus}, {"settings", topic_settings},
    {"various", topic_various},     {"scripts", topic_scripts},     {"memory", topic_memory},
    {"supports", topic_supports},   {"trees", topic_trees},         {"characters", topic_characters},
    {"weightgs", topic_weights},
};

bool starts_with(std::string_view word, std::string_view entry) {
  return word.size() <= entry.size() && entry.compare(0, word.size(), word) == 0;
}

bool file_readable(const std::string& name) { return access(name.c_str(), R_OK) == 0; }

void list_names(const CommandRecord* from, const CommandRecord* to) {
  int k = 0;
  for (const CommandRecord* r = from; r != to && r->name; ++r) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%11s", r->name);
    out_append(buf);
    if (++k % 7 == 0) out_newline();
  }
  if (k % 7) out_newline();
  send_line();
}

const CommandRecord* separator() {
  for (const CommandRecord* r = table_; r->name; ++r) {
    if (std::strcmp(r->name, separator_name) == 0) return r;
  }
  return nullptr;
}

void print_topic_list() {
  out_append("Possible help topics are:\n");
  for (const auto& t : topic_names) {
    out_append("   ");
    out_append(t.word);
    out_newline();
  }
  send_line();
}

void help_topics() {
  std::uint32_t mask = 0;
  std::vector<std::string> words;
  for (;;) {
    int c = peek_char();
    if (c == ']') {
      next_char();
      break;
    }
    if (c == ';') break;
    read_token();
    std::string w(token_buffer);
    if (!w.empty() && w.back() == ']') {
      w.pop_back();
      unread_char();
    }
    if (w.empty()) continue;
    words.push_back(w);
  }
  if (words.empty() || (words.size() == 1 && words[0] == "topics")) {
    print_topic_list();
    return;
  }
  out_append("Topic(s): ");
  for (const auto& w : words) out_append_word(w);
  out_newline();
  send_line();
  for (const auto& w : words) {
    bool found = false;
    for (const auto& t : topic_names) {
      if (starts_with(w, t.word)) {
        mask |= t.bit;
        found = true;
        break;
      }
    }
    if (!found) {
      out_line({"Unrecognized help topic:", w});
      print_topic_list();
      return;
    }
  }
  out_text({"Commands on specified topic(s):\n"});
  int k = 0;
  for (const CommandRecord* r = table_; r->name; ++r) {
    if (r->topics && (r->topics & mask) == mask) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%11s", r->name);
      out_append(buf);
      if (++k % 7 == 0) out_newline();
    }
  }
  if (k == 0) out_append(" none found!");
  out_flush();
}

}  // namespace

void install_command_table(const CommandRecord* table, const CommandRecord* run_file_record) {
  table_ = table;
  run_file_record_ = run_file_record;
  ordinary_count_ = 0;
  for (const CommandRecord* r = table; r->name; ++r) {
    if (std::strcmp(r->name, "zzz") == 0) {
      ordinary_count_ = static_cast<int>(r - table);
      break;
    }
  }
}

const CommandRecord* command_table() { return table_; }
int ordinary_command_count() { return ordinary_count_; }
const CommandRecord* current_record() { return current_; }
const std::string& typed_command_word() { return typed_word_; }
void install_help_lookup(HelpLookup fn) { help_lookup_ = fn; }
void add_after_command_step(void (*step)()) { after_command_steps_.push_back(step); }

int is_prefix(std::string_view word, std::string_view entry) {
  if (starts_with(word, entry)) return 0;
  if (shell_state.near_match == 2 && closest_match(word, entry, "option")) return 0;
  return 1;
}

bool (*inner_command_word)(const std::string& word) = nullptr;
void (*expression_help)(const std::string& word) = nullptr;

void macro_command_guard() {
  const CommandRecord* r = current_;
  if (!r) return;
  if (typed_word_ != r->name) error_exit({"Unknown command:", typed_word_});
  if (!shell_state.macros_on && std::strcmp(r->name, "macro") != 0) {
    error_exit({r->name, "legal only when macros are enabled"});
  }
  if (!r->timed && shell_state.watch_state) shell_state.watch_state = 2;
}

void print_command_help(const CommandRecord& rec) {
  if (std::strcmp(rec.name, separator_name) == 0) return;
  const char* text = help_lookup_ ? help_lookup_(rec.name) : nullptr;
  std::string upper(rec.name);
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  out_text({upper, "\n"});
  if (text) out_text({text, "\n"});
  out_text({"\n"});
}

void cmd_not_available() {
  error_exit({"Command", "\"" + std::string(current_ ? current_->name : "?") + "\"",
              "is not available yet in this version"});
}

void cmd_help() {
  int c = peek_char();
  const CommandRecord* sep = separator();
  if (c == ';') {
    out_text({"For help on command \"xxxx\" enter \"help xxxx\"\n",
              "For help on ALL commands, enter \"help*\"\n",
              "For help with scripting language, enter \"help+\"\n",
              "Enter \"help [ topic ]\" for possible help topics.\n\n", "COMMANDS:\n"});
    list_names(table_, sep);
    return;
  }
  if (c == '*') {
    next_char();
    int saved = switches.brk;
    switches.brk = 0;
    for (const CommandRecord* r = table_; r->name; ++r) print_command_help(*r);
    switches.brk = saved;
    return;
  }
  if (c == '+') {
    next_char();
    if (peek_char() == ';') {
      out_text({"MACRO COMMANDS:\n"});
      if (sep) list_names(sep + 1, nullptr);
      if (expression_help) expression_help("");
      return;
    }
    read_token();
    if (!expression_help) error_exit({"Expression", token_buffer, "not available yet in this version"});
    expression_help(token_buffer);
    return;
  }
  if (c == '[') {
    next_char();
    help_topics();
    return;
  }
  if (c == '!' || c == '>') {
    next_char();
    double t = read_real();
    if (t > 0) shell_state.match_threshold = t > 1 ? 1 : t;
    shell_state.near_match = c == '>' ? 2 : 1;
    out_format("Searching closest string in lists of names (threshold=%.2f)...", shell_state.match_threshold);
    return;
  }
  if (c == '<') {
    next_char();
    shell_state.near_match = 0;
    out_text({"String match must be exact...\n"});
    return;
  }
  if (!std::isalpha(c)) error_exit("\"Help\" requires a command as argument");
  while (std::isalpha(peek_char())) {
    read_command_word();
    std::string w(token_buffer);
    bool any = false;
    for (const CommandRecord* r = table_; r->name; ++r) {
      if (starts_with(w, r->name)) {
        print_command_help(*r);
        any = true;
      }
    }
    if (!any) error_exitf("%s: command not recognized", w.c_str());
  }
}

void read_and_dispatch() {
  shell_state.current_command_name = "qax*";
  shell_state.prompt_text = "qax*>";
  current_ = nullptr;
  shell_state.between_commands = 1;
  for (;;) {
    if (input_exhausted()) {
      shell_state.between_commands = 0;
      shell_state.keep_running = 0;
      return;
    }
    int c = peek_char();
    if (c == ';') {
      next_char();
      continue;
    }
    break;
  }
  shell_state.between_commands = 0;
  if (input_exhausted()) {
    shell_state.keep_running = 0;
    return;
  }
  int len = read_command_word();
  if (len == 0) error_exit("No command!");
  typed_word_ = token_buffer;
  if (inner_command_word && inner_command_word(typed_word_)) return;
  const CommandRecord* rec = nullptr;
  for (const CommandRecord* r = table_; r->name; ++r) {
    if (starts_with(typed_word_, r->name)) {
      rec = r;
      break;
    }
  }
  bool terminal = current_frame().is_terminal != 0;
  if (!rec && shell_state.near_match && terminal && !shell_state.worker_mode) {
    for (int i = 0; i < ordinary_count_; ++i) {
      if (closest_match(typed_word_, table_[i].name, "command")) {
        rec = &table_[i];
        break;
      }
    }
  }
  if (!rec) {
    std::string name = typed_word_ + ".run";
    std::string found;
    if (file_readable(name)) found = name;
    else if (!run_path.empty() && file_readable(run_path + name)) found = run_path + name;
    if (!found.empty()) {
      std::snprintf(token_buffer, sizeof token_buffer, "%s", found.c_str());
      rec = run_file_record_;
    }
  }
  if (!rec) {
    if (terminal) error_exitf("VOLN: command \"%s\" not recognized", typed_word_.c_str());
    error_exit({"Unknown command:", typed_word_});
  }
  current_ = rec;
  shell_state.current_command_name = rec->name;
  shell_state.prompt_text = std::string(rec->name) + ">";
  if (shell_state.watch_state && !rec->timed) shell_state.watch_state = 2;
  if (shell_state.echo_state && std::strcmp(rec->name, "view") != 0) {
    std::string upper(rec->name);
    for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    out_text({"\nCOMMAND: ", upper, "\n"});
  }
  bool skip_peek = rec == run_file_record_ || std::strcmp(rec->name, "exit") == 0 ||
                   std::strcmp(rec->name, "quit") == 0 || std::strcmp(rec->name, "zzz") == 0 ||
                   std::strcmp(rec->name, "quote") == 0;
  if (!skip_peek) {
    shell_state.command_word_mark = 1;
    int c = peek_char();
    shell_state.command_word_mark = 0;
    if (c == '?') {
      next_char();
      print_command_help(*rec);
      if (shell_state.watch_state) shell_state.watch_state = 2;
      ram_release();
      return;
    }
  }
  shell_state.command_start_time = now_seconds();
  Handler h = rec->handler;
  protected_call([h] { h(); });
  for (auto step : after_command_steps_) step();
  ram_release();
}

}  // namespace qax::shell
