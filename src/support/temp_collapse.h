// Temporary collapsing of the trees a consensus command reads. While a TempCollapse
// scope is open and collapsing applies (the switch of `collapse` is on, the rule is not
// "none" and the data set has characters), consensus_row(k) gives tree k with its
// unsupported branches removed; otherwise the stored row. The store is never changed.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::support {

// The collapsed rows of the command in hand. A tree is collapsed on its first use and
// kept until the outermost scope closes, so each tree is collapsed at most once per
// command however often the calculation reads it.
struct TempCollapseView {
  int depth = 0;                                 // open scopes (inner ones reuse the rows)
  int active = 0;                                // rows are being collapsed
  std::vector<std::vector<std::int32_t>> rows;   // per stored tree: collapsed row, empty until used
  std::vector<std::uint8_t> as_stored;           // per stored tree: read as stored (reference trees)
};
extern TempCollapseView temp_collapse_view;

// True when the consensus commands collapse now: temporary collapsing on, a rule other
// than "none", and a matrix with characters for the trees' taxa.
[[nodiscard]] bool temp_collapse_applies() noexcept;

// The row a consensus calculation reads for stored tree k. May fail by error_exit when
// the tree cannot be optimised (the messages of the collapsing rules).
const std::int32_t* consensus_row(int k);

// Opens the view for one command. Under rule 4, or SPR/TBR collapsing, fails with the
// command's name in the message (those rules cannot collapse trees one by one here).
// `enable` false (e.g. rough recovery) reads the stored rows inside the scope.
class TempCollapse {
 public:
  explicit TempCollapse(const char* command, bool enable = true);
  ~TempCollapse();
  TempCollapse(const TempCollapse&) = delete;
  TempCollapse& operator=(const TempCollapse&) = delete;
  // Tree k is read as stored (the reference tree whose groups are evaluated).
  void keep_as_stored(int k);
  [[nodiscard]] bool active() const noexcept { return temp_collapse_view.active != 0; }

 private:
  int saved_active_ = 0;  // state of an enclosing scope
};

// Start-up state (no scope open).
void temp_collapse_reset();

}  // namespace qax::support
