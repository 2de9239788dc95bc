// Whether the data have step-matrix or continuous characters.
#include "dataset/dataset.h"
#include "optim/packed.h"
#include "search/search_internal.h"

namespace qax::search {

namespace {

bool any_wide_character() {
  using qax::dataset::dataset;
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& r = dataset.chars[c];
    if (r.active && r.weight != 0 && (r.is_continuous || r.sankoff)) return true;
  }
  return false;
}

}  // namespace

bool has_wide_data() {
  // The pack knows best: step matrices of one cost are packed as plain columns.
  if (optim::packed.valid) return optim::packed.wide.any();
  return any_wide_character();
}

}  // namespace qax::search
