// Character settings of NEXUS files: the commands of ASSUMPTIONS and SETS blocks and
// the labels of DATA/CHARACTERS blocks, gathered while the file is read and turned
// into the program's own commands, run after the matrix. What has no counterpart
// here is listed, so that no setting is dropped without a word.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qax::dataset {

struct NexusSettings {
  int nchar = 0;                                      // characters of the matrix
  std::vector<std::string> taxa;                      // taxon names as in the file
  int default_type = 0;                               // 0 unordered, 1 ordered
  std::vector<int> type;                              // per character: -1 default, 0 unord, 1 ord
  std::vector<int> weight;                            // per character: -1 not set
  std::vector<int> excluded;                          // per character: 1 excluded
  std::vector<std::pair<std::string, std::vector<int>>> charsets;
  std::vector<std::pair<std::string, std::vector<int>>> taxsets;
  std::vector<std::string> char_names;                // per character, empty none
  std::vector<std::vector<std::string>> state_names;  // per character
  std::vector<std::string> notes;                     // what was not applied
};

// The program's commands for the settings: ccode for types, weights and exclusions,
// xgroup and agroup for sets, cnames for labels. Empty when nothing was set.
std::string nexus_settings_commands(const NexusSettings& s);

}  // namespace qax::dataset
