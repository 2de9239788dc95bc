// libFuzzer target for the NEXUS, FASTA and PHYLIP converters: any input must
// either convert or fail through import_fail, never crash, hang or loop.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "dataset/import.h"
#include "shell/failure.h"

namespace qax::dataset {
namespace {
[[noreturn]] void fuzz_failure(const std::string& message) {
  if (message.empty()) std::abort();  // every failure must say something
  throw qax::shell::CommandFailed{};
}
}  // namespace
ImportFailFn import_fail = fuzz_failure;
}  // namespace qax::dataset

using namespace qax::dataset;

namespace {

// A converted text is xread input (and the settings after it): it ends with ";" and
// holds no NUL.
void check(const ImportResult& r) {
  // A NEXUS file of taxa and trees only gives trees for the matrix in memory.
  if (r.xread.empty() && (!r.trees.trees.empty() || !r.trees.text.empty())) return;
  if (r.xread.size() < 2 || r.xread.compare(r.xread.size() - 2, 2, ";\n") != 0) std::abort();
  if (r.xread.find('\0') != std::string::npos) std::abort();
  if (r.ntax < 4) std::abort();
}

template <typename F>
void attempt(F convert) {
  try {
    check(convert());
  } catch (const qax::shell::CommandFailed&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  attempt([&] { return nexus_to_xread(text, "fuzz.nex"); });
  attempt([&] { return fasta_to_xread(text, "fuzz.fasta"); });
  attempt([&] { return phylip_to_xread(text, "fuzz.phy"); });
  return 0;
}
