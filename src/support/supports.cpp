// Shared pieces of the support commands.
#include "support/supports.h"

#include "shell/state.h"
#include "trees/display.h"
#include "trees/store.h"
#include "trees/tags.h"

namespace qax::support {

namespace {
double last_support_value = 0;
}

void show_support_tree(const std::int32_t* tree, const std::vector<std::string>& labels, const std::string& title) {
  const int ntax = qax::trees::tree_store.ntax;
  qax::trees::draw_tree(tree, ntax, &labels, title);
  qax::trees::tags_collect(tree, ntax, labels);
}

void set_last_support(double value) { last_support_value = value; }
double last_support() { return last_support_value; }

bool switches_timing() { return qax::shell::shell_state.watch_state != 0; }

}  // namespace qax::support
