// The import readers as the shell sees them: procedure hands NEXUS, FASTA and
// PHYLIP files here; each is converted to xread text and pushed as an input level.
#include <strings.h>

#include <fstream>
#include <sstream>

#include "shell/file_access.h"
#include "dataset/dataset.h"
#include "dataset/import.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"

namespace qax::dataset {

namespace {

[[noreturn]] void fail_through_shell(const std::string& message) { shell::error_exit(message); }

NexusTrees last_trees_;

std::string read_whole_file(const std::string& name) {
  shell::check_file_name(name);
  std::ifstream in(name, std::ios::binary);
  if (!in) shell::error_exit({"Can't open", name});
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

ImportOptions current_options() {
  ImportOptions o;
  o.cell_width = dataset.cell_width;
  o.gaps_as_state = dataset.gaps_as_missing == 0;
  o.name_length = dataset.name_length;
  return o;
}

// The user's reading settings while an imported matrix is read.
struct SavedReading {
  bool pending = false;
  int data_format = format_numeric;
  int gaps_as_missing = 1;
};
SavedReading saved_reading_;

void push_result(ImportResult& r, const std::string& name) {
  // Notes go to the console: a setting of the file that could not be applied, a
  // block skipped or a name changed must not pass unseen.
  for (const auto& n : r.notes) shell::out_text({"Note: ", n, "\n"});
  if (r.xread.empty()) {
    // A file of trees only: they are read at once, for the matrix in memory.
    if (!dataset.loaded) shell::error_exit({"File", name, "holds trees only: read the data first"});
    if (tree_link_hooks.matrix_read) tree_link_hooks.matrix_read();
    return;
  }
  saved_reading_ = {true, dataset.data_format, dataset.gaps_as_missing};
  shell::push_text_level(std::move(r.xread), name);
}

// procedure on a "#NEXUS" file: the level is open on it; read it whole by name.
void read_nexus_level() {
  std::string name = shell::current_frame().name;
  std::string text = read_whole_file(name);
  shell::close_input();
  ImportResult r = nexus_to_xread(text, name, current_options());
  last_trees_ = std::move(r.trees);
  push_result(r, name);
}

void read_fasta_file(const std::string& name, int /*group*/) {
  std::string text = read_whole_file(name);
  ImportResult r = fasta_to_xread(text, name, current_options());
  clear_nexus_trees();
  push_result(r, name);
}

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

// procedure on any other file: takes it when it starts with a PHYLIP header, with
// '>' (FASTA), or with "#NEXUS" after a byte-order mark; otherwise it stays a
// command file.
bool read_other_format_level() {
  shell::InputFrame& f = shell::current_frame();
  std::string_view head(f.text + f.pos);
  if (head.starts_with(byte_order_mark)) head.remove_prefix(byte_order_mark.size());
  std::size_t first = head.find_first_not_of(" \t\r\n");
  enum { none, phylip, fasta, nexus } kind = none;
  if (first != std::string_view::npos && head[first] == '(' && shell::import_hooks.newick) {
    // Newick trees, as other programs write them.
    std::string name = f.name;
    shell::close_input();
    shell::import_hooks.newick(name);
    return true;
  }
  if (looks_like_phylip(head)) kind = phylip;
  else if (first != std::string_view::npos && head[first] == '>') kind = fasta;
  else if (head.size() > 6 && strncasecmp(head.data(), "#NEXUS", 6) == 0 && static_cast<unsigned char>(head[6]) < 33 &&
           head.data() != f.text + f.pos) kind = nexus;
  if (kind == none) return false;
  std::string name = f.name;
  std::string text = read_whole_file(name);
  shell::close_input();
  if (std::string_view(text).starts_with(byte_order_mark)) text.erase(0, byte_order_mark.size());
  ImportOptions o = current_options();
  ImportResult r = kind == phylip ? phylip_to_xread(text, name, o)
      : kind == fasta ? fasta_to_xread(text, name, o) : nexus_to_xread(text, name, o);
  last_trees_ = std::move(r.trees);  // empty unless NEXUS
  push_result(r, name);
  return true;
}

}  // namespace

ImportFailFn import_fail = fail_through_shell;

const NexusTrees& nexus_trees() { return last_trees_; }
void clear_nexus_trees() { last_trees_ = NexusTrees(); }

void restore_reading_after_import() {
  if (!saved_reading_.pending) return;
  saved_reading_.pending = false;
  dataset.data_format = saved_reading_.data_format;
  dataset.gaps_as_missing = saved_reading_.gaps_as_missing;
  build_symbol_table(dataset.data_format, dataset.cell_width);
}

void install_import_hooks() {
  static bool step_added = false;
  if (!step_added) {
    shell::add_recover_step(restore_reading_after_import);
    step_added = true;
  }
  import_fail = fail_through_shell;
  shell::import_hooks.nexus = read_nexus_level;
  shell::import_hooks.fasta = read_fasta_file;
  shell::import_hooks.other_format = read_other_format_level;
}

}  // namespace qax::dataset
