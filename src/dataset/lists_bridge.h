// Lists of taxa and characters of the data set: the shell's list reader with the
// data set's names, groups and blocks filled in.
#pragma once

#include <cstdint>
#include <vector>

#include "shell/lists.h"

namespace qax::dataset {

// Contexts pointing into the current data set (valid until it changes).
shell::ListContext taxon_list_context();
shell::ListContext character_list_context(const char* extra_terminators = nullptr);
// read_scope over all taxa / all characters; flags sized ntax / nchar.
int read_taxon_list(std::vector<std::int8_t>& flags);
int read_character_list(std::vector<std::int8_t>& flags, const char* extra_terminators = nullptr);
// One taxon (read_taxon with the data set's names and groups).
int read_one_taxon();
[[noreturn]] void error_exit_needs_trees();

}  // namespace qax::dataset
