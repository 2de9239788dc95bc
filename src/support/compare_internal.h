// Shared by the files of tcomp and sprdiff: the readers of tree lists, the taxa compared
// and the table of values printed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::support::compare_detail {

const std::string& taxon_name(int t);
// A list of trees before "/" or ";": all trees when empty; fails with `none` when it names
// no tree.
std::vector<int> read_list(const char* none);
// "N/M" and the taxa to leave out ("/L").
void read_two_lists(std::vector<int>& first, std::vector<int>& second, std::vector<std::uint8_t>& excluded);
// Fails without data or without trees.
void require_trees();
// Taxa compared for a set of trees: present in all and not left out. With `warn`, a
// warning names a taxon some tree lacks and another has.
std::vector<std::uint8_t> common_taxa(const std::vector<int>& a, const std::vector<int>& b,
                                      const std::vector<std::uint8_t>& excluded, bool warn);
// Values of the pairs (rows: first list, columns: second list). With one tree in the
// second list it is named as the reference with the best value, and each tree gets a line.
void print_table(const std::string& title, const std::vector<int>& rows, const std::vector<int>& cols,
                 const std::vector<double>& v, const char* format);

// The forms of tcomp beyond groups, Robinson-Foulds and triplets (tcomp_measures.cpp).
void mrp_coefficients(int mode);
void recovery_distance(bool resolved);
void group_equivalences();
void cluster_information(bool rescaled);
void taxon_stability(bool lsi);
void observed_success();

}  // namespace qax::support::compare_detail
