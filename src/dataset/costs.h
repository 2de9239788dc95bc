// Transformation costs of Sankoff characters: one square table per character (32 x 32,
// row = from-state, column = to-state), made only for characters whose costs were defined;
// a character without a table has the default costs (0 on the diagonal, 1 elsewhere). The
// commands that define them (costs, smatrix, ancstates, fillsank) and the repairs the
// min-max check makes before scoring (triangle inequality, filling of polymorphic cells).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::dataset {

constexpr int cost_states = 32;   // rows and columns of a table

struct CostSettings {
  int allow_sankoff = 1;          // cost > (allow) / cost < (disallow); read at xread
  int sankoff_disabled = 0;       // the matrix in memory was read with Sankoff disallowed
  int zel_format = 0;             // cost ] : saved costs in the other format
  int exact_asymmetric_tbr = 0;   // cost & : exact relative differences during TBR
  int fill_sankoff = 1;           // fillsank: polymorphic cells take intermediate states
};
extern CostSettings cost_settings;

// Table of character c, or null when it keeps the default costs.
const std::int32_t* cost_table(int c) noexcept;
// Cost from state i to state j of character c (default table when none was defined).
std::int32_t cost_of(int c, int i, int j) noexcept;
// Table of character c, made from the default costs if it had none.
std::int32_t* cost_table_for_edit(int c);
// Forgets every table (new data set).
void cost_tables_clear();
// True when cost i>j equals j>i for every pair of states below `states`.
bool table_symmetric(const std::int32_t* t, int states) noexcept;

// Costs of a semi-additive character (1 between neighbouring states, 2 otherwise) for the
// characters flagged; they become Sankoff.
void make_semi_additive(const std::vector<std::int8_t>& flags);

// Lowers costs to shortest paths for Sankoff characters with `dirty` set; warns once per
// call. Returns the number of characters changed.
int repair_triangles();
// Adds to polymorphic cells of Sankoff characters the states lying on cheapest paths
// between their states; writes the cells back and reports each change.
void fill_polymorphic_cells(int c);
// Minimum and maximum possible steps of a Sankoff character (unweighted).
void sankoff_min_max(int c, int& min_steps, int& max_steps);

void cmd_costs();
void cmd_smatrix();
void cmd_ancstates();
void cmd_fillsank();
void cmd_cstree();
void reset_state_trees();
// The character-state tree of character c as the parent of each of its states (-1 for the
// state at the top of the drawing), when c is to be decomposed in binary variables
// (cstree +) and its costs are still the distances on its tree; empty otherwise.
std::vector<int> binary_state_tree(int c);

// User-defined minimum steps and maximum state of Sankoff characters (-1: none). The
// maximum state S opens the states 0..S to the ancestors of a Sankoff character, beyond
// those scored; the minimum replaces the minimum possible steps.
struct UserMinMax {
  int apply_max = 1;                 // maximum states in effect
  std::vector<int> minimum;          // per character
  std::vector<int> maximum;          // per character
  int max_state(int c) const { return apply_max && c < static_cast<int>(maximum.size()) ? maximum[c] : -1; }
  int min_steps(int c) const { return c < static_cast<int>(minimum.size()) ? minimum[c] : -1; }
};
extern UserMinMax user_min_max;
void cmd_usminmax();
void reset_user_min_max();

// Reset of the settings and tables (tests, reset).
void reset_cost_state();

}  // namespace qax::dataset
