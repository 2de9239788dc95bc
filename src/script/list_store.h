// Functions of expressions that produce lists write them into the array named as the
// target of the surrounding `set`. The target is recorded by `set` before it evaluates
// its expression; a list function fills it and marks it written, so that `set` does not
// then store the expression's value over its first cell.
#pragma once

#include <string>
#include <vector>

#include "script/space.h"

namespace qax::script {

struct ListTarget {
  bool active = false;           // inside the expression of a `set`
  const NamedVar* var = nullptr; // the named variable, if the target was a name
  int cell = 0;                  // first cell to write
  bool written = false;
};

extern ListTarget list_target;

// Checks the target against `values` (under protection modes 1 and 2), writes the cells
// and sets `listsize`. `function` names the list function in the messages.
void store_list(const std::string& function, const std::vector<double>& values);

// One-dimensional named arrays as a whole, for commands that copy values to and from
// them: false when there is no such name; writing checks that the values fit.
bool read_named_array(const std::string& name, std::vector<double>& values);
void write_named_array(const std::string& name, const std::vector<double>& values);

}  // namespace qax::script
