// Process entry, the one-time set-up and the command cycle.
#include "app/program.h"
#include "dataset/costs.h"

#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "app/command_table.h"
#include "support/command_helpers.h"
#include "search/swap_collapse.h"
#include "search/xmult.h"
#include "script/commands.h"
#include "search/settings.h"
#include "app/help_text.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/console.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"
#include "shell/viewer.h"
#include "dataset/dataset.h"
#include "dataset/import.h"
#include "trees/notation.h"
#include "trees/store.h"
#include "support/bremer.h"
#include "support/compare_commands.h"
#include "support/consensus.h"
#include "support/resample.h"
#include "script/list_store.h"
#include "trees/tags.h"
#include "graphics/svg.h"
#include "search/constraints.h"
#include "optim/collapse.h"
#include "optim/implied.h"
#include "optim/packed.h"
#include "optim/reports.h"

namespace qax::app {

using namespace qax::shell;

namespace {

void apply_background_effect() {
  output_state.silent_flags |= 2;
  switches.report = 0;
  switches.brk = 0;
  switches.beep = 0;
}

void watch_report() {
  if (shell_state.watch_state != 1) return;
  char buf[128];
  std::snprintf(buf, sizeof buf, "%s %.2f secs.", shell_state.current_command_name.c_str(),
                now_seconds() - shell_state.command_start_time);
  std::string line = buf;
  if (shell_state.watch_ram) line += " (" + bytes_text(shell_state.peak_ram_command) + ")";
  out_text({line, "\n"});
}

void command_cycle() {
  while (shell_state.keep_running) {
    shell_state.implied_minima_note &= 2;
    shell_state.stop_search_flag = 0;
    if (shell_state.watch_state == 1 && input_level() == 0) shell_state.peak_ram_command = ram_in_use();
    if (input_level() == 0) forget_interrupt_key();
    protected_call(read_and_dispatch);
    if (shell_state.pending_error_goto) qax::script::take_error_goto();
    if (shell_state.peak_ram_command > shell_state.peak_ram_overall) {
      shell_state.peak_ram_overall = shell_state.peak_ram_command;
    }
    if (shell_state.current_command_name != "qax*") watch_report();
    flush_log();
    if (shell_state.watch_state) shell_state.watch_state = 1;
    if (switches.brk) switches.brk = 1;
    if (shell_state.echo_state == 3) shell_state.echo_state = 0;
    if ((shell_state.implied_minima_note & 3) == 1) {
      warning({"Some of the score calculations for implied weights\nare only approximate (calculation of minima for\ndependent characters with strong penalties is approximate!)"});
      shell_state.implied_minima_note |= 2;
    }
  }
  unwind_input();
}

bool background_end_of_input() { return take_execute_file(); }

// What mxram reports and discards of the data in memory.
void install_memory_hooks() {
  memory_hooks.data_loaded = [] { return qax::dataset::dataset.loaded != 0; };
  memory_hooks.discard_data = [] { qax::dataset::dataset_clear(); };
  memory_hooks.ntax = [] { return qax::dataset::dataset.ntax; };
  memory_hooks.nchar = [] { return qax::dataset::dataset.nchar; };
  memory_hooks.ntrees = [] { return qax::trees::tree_store.ntrees; };
  memory_hooks.vault_trees = [] { return qax::trees::tree_store.vault_count; };
  memory_hooks.tree_bytes = []() -> std::uint64_t {
    const auto& t = qax::trees::tree_store;
    return t.rows.capacity() * sizeof(std::int32_t) + t.scores.capacity() * sizeof(double) +
           t.group_bits.capacity() * sizeof(std::uint32_t);
  };
  memory_hooks.optimization_bytes = []() -> std::uint64_t {
    const auto& p = qax::optim::packed;
    return p.storage.capacity() * sizeof(std::uint32_t) + p.node_sets.capacity() * sizeof(p.node_sets[0]) +
           p.packed_char.capacity() * sizeof(p.packed_char[0]) + p.pack_plan.capacity() * sizeof(p.pack_plan[0]);
  };
  memory_hooks.constraint_bytes = []() -> std::uint64_t {
    const auto& c = qax::search::constraint_defs;
    std::uint64_t n = c.tree.capacity() * sizeof(std::int32_t);
    for (const auto& g : c.positive) n += g.field.capacity() + sizeof(g);
    for (const auto& g : c.negative) n += g.field.capacity() + sizeof(g);
    return n;
  };
  memory_hooks.name_bytes = []() -> std::uint64_t {
    const auto& d = qax::dataset::dataset;
    std::uint64_t n = 0;
    for (const auto& s : d.character_names) n += s.empty() ? 0 : s.capacity() + 1;
    for (const auto& v : d.state_names)
      for (const auto& s : v) n += s.capacity() + 1;
    return n;
  };
}

}  // namespace

void reset_run_state() {
  qax::script::reset_script_state();
  reset_shell_state();
  output_state = OutputState();
  run_path.clear();
  qax::trees::tree_store_clear();
  qax::dataset::reset_dataset_state();
  qax::dataset::reset_cost_state();
  reset_viewer_state();
  qax::dataset::clear_nexus_trees();
  qax::support::reset_consensus_settings();
  qax::support::reset_resample_settings();
  qax::trees::reset_tag_settings();
  qax::search::reset_search_state();
  qax::search::constraints_reset();
  qax::optim::collapse_reset();
  qax::optim::mapping_settings = qax::optim::MappingSettings();
  qax::optim::implied_settings = qax::optim::ImpliedSettings();
  qax::optim::self_weight_settings = qax::optim::SelfWeightSettings();
  qax::support::bremer_settings = qax::support::BremerSettings();
  qax::support::sprdiff_settings = qax::support::SprdiffSettings();
}

void install_subsystems() {
  install_command_table(command_records, &run_file_record);
  install_help_lookup(help_text_for);
  qax::dataset::install_import_hooks();
  import_hooks.newick = qax::trees::import_newick_file;
  install_memory_hooks();
  qax::script::install_script_layer();
  qax::optim::swap_collapse_hook = qax::search::swap_collapse;
  qax::dataset::tree_link_hooks.downpass_sets = qax::optim::downpass_sets_of_tree0;
  qax::search::xmult_consensus_hooks.strict = qax::support::strict_consensus;
  qax::search::xmult_consensus_hooks.read_excluded_taxa = qax::support::read_excluded_taxa;
  background_input_end = background_end_of_input;
  qax::trees::install_dataset_links();
  qax::trees::svg_tag_output = qax::graphics::svg_tags_command;
  qax::trees::tag_array_read = qax::script::read_named_array;
  qax::trees::tag_array_write = qax::script::write_named_array;
  qax::trees::tree_services = {qax::optim::collapsed_copy, [] { return qax::search::constraint_defs.defined != 0; }, qax::search::tree_violations, qax::optim::ensure_packed, qax::optim::character_steps};
  // Hooks kept in lists are added once per process, however often the program runs.
  static bool lists_filled = false;
  if (lists_filled) return;
  lists_filled = true;
  // A tree file open for saving belongs to the data set: trees of the next one would
  // make a file that can't be read back.
  qax::dataset::add_dataset_replaced_hook([] { qax::trees::close_tree_file(true); });
  qax::dataset::add_dataset_replaced_hook(qax::trees::tree_store_clear);
  add_exit_step(qax::trees::tree_files_at_exit);
  // Any command may change taxa, characters or weights: the packed matrix is rebuilt
  // by the next command that scores (packing costs milliseconds even on large data).
  add_after_command_step([] {
    qax::optim::invalidate_pack();
    qax::optim::implied_settings.char_concavity.clear();  // concavities follow the entries
  });
  // Sets and individual concavities name characters of the data set they were given for.
  qax::dataset::add_dataset_replaced_hook([] {
    auto& s = qax::optim::implied_settings;
    s.set_of_char.clear();
    s.user_k.clear();
    s.constant_set.clear();
    s.char_concavity.clear();
  });
}

int run_program(int argc, char** argv) {
  const char* slash = std::strrchr(argv[0], '/');
  shell_state.program_name = slash ? slash + 1 : argv[0];
  shell_state.pid = static_cast<int>(getpid());
  shell_state.worker_mode = 0;
  bool open_console_now = true;
  if (argc > 1) {
    std::string first = argv[1];
    if (first == "just_numprocs" || first == "mpi_just_numprocs") {
      std::fprintf(stderr, "%i\n", get_nprocs());
      return 0;
    }
    if (first == "bground" || first == "slaveproc" || first == "mpi_slaveproc" ||
        first == "slavesettingdata" || first == "mpi_slavesettingdata") {
      shell_state.background = 1;
      open_console_now = false;
      if (first == "slaveproc") shell_state.worker_mode = 1;
    }
  }
  install_subsystems();
  text_buffer_init(200);
  shell_state.run_start_time = std::time(nullptr);
  shell_state.watch_reference = now_seconds();
  std::string level0;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) level0 += ' ';
    level0 += argv[i];
  }
  if (argc > 1) level0 += '\n';
  shell_state.from_command_line = argc > 1 ? 1 : 0;
  int status = 0;
  try {
    if (open_console_now) {
      open_console();
      if (argc > 1) console_write("\nVOLN (Tree Inference Shell)\n\n\r");
      else print_version_banner();
    } else {
      apply_background_effect();
    }
    init_input_stack(default_mxproc, level0, !shell_state.background && console_is_terminal());
    if (!shell_state.background && console_is_terminal()) install_interrupt_key();
    protected_call([] { claim_arena(default_ram_size); });
    command_cycle();
    status = 0;
  } catch (const RunEnded& e) {
    status = e.status;
  }
  flush_log();
  close_console();
  return status;
}

}  // namespace qax::app
