// Lists of taxa and characters of the data set.
#include "dataset/lists_bridge.h"

#include "dataset/dataset.h"
#include "shell/failure.h"

namespace qax::dataset {

namespace {
shell::ListGroups taxon_groups_view, character_groups_view;
shell::ListBlocks blocks_view;
std::vector<int> item_blocks;
}  // namespace

shell::ListContext taxon_list_context() {
  Dataset& d = dataset;
  taxon_groups_view.masks = &d.taxon_groups;
  taxon_groups_view.names = &d.taxon_group_names;
  shell::ListContext ctx;
  ctx.names = &d.taxon_names;
  ctx.groups = &taxon_groups_view;
  return ctx;
}

shell::ListContext character_list_context(const char* extra_terminators) {
  Dataset& d = dataset;
  character_groups_view.masks = &d.character_groups;
  character_groups_view.names = &d.character_group_names;
  item_blocks.resize(d.nchar);
  for (int c = 0; c < d.nchar; ++c) item_blocks[c] = d.chars[c].block;
  blocks_view.item_block = &item_blocks;
  blocks_view.names = &d.block_names;
  blocks_view.count = d.nblocks;
  shell::ListContext ctx;
  ctx.names = &d.character_names;
  ctx.groups = &character_groups_view;
  ctx.blocks = &blocks_view;
  ctx.extra_terminators = extra_terminators;
  return ctx;
}

int read_taxon_list(std::vector<std::int8_t>& flags) {
  require_data();
  return shell::read_scope(flags, 0, dataset.ntax, "taxon", taxon_list_context());
}

int read_character_list(std::vector<std::int8_t>& flags, const char* extra_terminators) {
  require_data();
  return shell::read_scope(flags, 0, dataset.nchar, "character", character_list_context(extra_terminators));
}

int read_one_taxon() {
  require_data();
  return shell::read_taxon(taxon_list_context(), dataset.ntax);
}

void error_exit_needs_trees() { shell::error_exit("No trees in memory"); }

}  // namespace qax::dataset
