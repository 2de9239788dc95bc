// Writing the values of list functions into the target array of `set`.
#include "script/list_store.h"

#include <cstdio>

#include "shell/failure.h"
#include "shell/output.h"

namespace qax::script {

using namespace qax::shell;

ListTarget list_target;

void store_list(const std::string& function, const std::vector<double>& values) {
  if (!list_target.active) error_exit({function, "requires arrays"});
  const int n = static_cast<int>(values.size());
  if (space.protection >= 1) {
    const NamedVar* var = list_target.var;
    if (!var) error_exit({"Cannot store", number_text(n), "values in variable", number_text(list_target.cell - current_shift())});
    if (var->dims == 0) error_exit({function, "requires arrays"});
    if (var->dims > 1) error_exit({function, "requires 1-dimensional arrays"});
    const int room = var->extent[0] - (list_target.cell - var->cell);
    if (n > room)
      error_exit({function, "has", number_text(n), "values, but array can store only", number_text(room)});
  }
  for (int i = 0; i < n; ++i) check_cell(static_cast<long long>(list_target.cell) + i);
  for (int i = 0; i < n; ++i) set_cell(list_target.cell + i, values[i]);
  space.listsize = n;
  list_target.written = true;
}

bool read_named_array(const std::string& name, std::vector<double>& values) {
  const NamedVar* var = find_name(name);
  if (!var) return false;
  if (var->dims > 1) error_exit({name, "requires 1-dimensional arrays"});
  const int n = var->dims ? var->extent[0] : 1;
  values.resize(n);
  for (int i = 0; i < n; ++i) values[i] = cell_value(var->cell + i);
  return true;
}

void write_named_array(const std::string& name, const std::vector<double>& values) {
  const NamedVar* var = find_name(name);
  if (!var) error_exit({"Unrecognized variable:", name});
  if (var->dims != 1) error_exit({name, var->dims ? "requires 1-dimensional arrays" : "requires arrays"});
  const int n = static_cast<int>(values.size());
  if (n > var->extent[0]) error_exit({"List has", number_text(n), "values, but array can store only", number_text(var->extent[0])});
  for (int i = 0; i < n; ++i) set_cell(var->cell + i, values[i]);
  space.listsize = n;
}

}  // namespace qax::script
