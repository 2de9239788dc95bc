// The one data set of the run.
#include "dataset/dataset.h"

namespace qax::dataset {

Dataset dataset;

}  // namespace qax::dataset
