// The guard of the heuristics that work on narrow columns only.
#include "dataset/dataset.h"
#include "search/search_internal.h"
#include "shell/failure.h"

namespace qax::search {

void require_narrow_data(const char* what) {
  using qax::dataset::dataset;
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& r = dataset.chars[c];
    if (r.active && r.weight != 0 && (r.is_continuous || r.sankoff)) {
      shell::error_exit({"Sorry,", what, "is not available yet with step-matrix or continuous characters"});
    }
  }
}

}  // namespace qax::search
