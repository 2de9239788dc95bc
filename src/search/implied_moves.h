// Rating of SPR and TBR moves under implied weighting without rescoring each tree: for
// each clip the state sets of the tree without it are made once, and a move's fit is the
// fit of the two parts plus what the characters that gain steps at the join add.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "optim/implied.h"
#include "search/engine.h"

namespace qax::search {

class ImpliedMoves {
 public:
  // Only characters packed as sets of states (no cost tables or continuous values).
  static bool usable();
  // Takes the tree loaded in e (its data set parent array `parent`), with `weights` in
  // place of the characters' own when given.
  void load(const Engine& e, const std::vector<std::int32_t>& parent, const std::vector<int>* weights);
  // Makes the sets of the tree without the clip n and of the clip's rerootings (TBR: the
  // branches below its children; SPR: none beyond the clip as it is).
  void prepare_clip(int n, bool tbr);
  // Fit of the two parts with no step at the join.
  double base() const { return delta_.base(); }
  // Fit of the join where the clip was: the tree's fit is base() + join_value().
  double join_value() const { return join_value_; }
  // Fit of the tree made by putting the clip, rerooted on the branch above `reroot` (-1:
  // as it is), on the branch above `target` of the tree without it. Exact when at most
  // `ceiling`; otherwise some value above it.
  double fit(int reroot, int target, double ceiling);

 private:
  const std::uint32_t* down(int v) const { return dptr_[v]; }
  std::uint32_t* at(std::vector<std::uint32_t>& a, int v) { return a.data() + static_cast<std::size_t>(v) * W_; }
  // Columns where a and b have no state in common: the characters gaining steps and the
  // fit they add, stopping once the fit passes `room` (then returns a value above it).
  double join(const std::uint32_t* a, const std::uint32_t* b, double room);

  int nt_ = 0, nn_ = 0, W_ = 0, clip_ = -1;
  double join_value_ = 0;
  std::vector<int> anc_, left_, right_;
  std::vector<std::uint32_t> down_, down2_, up2_, edge2_, upc_, rootset_;
  std::vector<const std::uint32_t*> dptr_;
  void order_fields();
  double unjoin_cost(int n, int s);
  void rate_slots(const std::vector<int>& chars);
  // Per field slot (word * 16 + field) of the rater's own order of the fields: character
  // (-1: padding), column of an additive character, fit of one more step (-1: gather).
  std::vector<int> slot_char_;
  std::vector<std::uint8_t> slot_several_;
  std::vector<double> slot_step_;
  std::vector<double> word_least_;      // per word: least that a step of one of its columns adds
  std::vector<std::uint8_t> word_uniform_;  // per word: all its columns add the same
  std::vector<std::vector<int>> char_slots_;  // slots of each character
  std::vector<int> changed_, touched_words_;
  // The ratings on the whole tree, from which each clip's start.
  optim::FitDelta tree_delta_;
  std::vector<double> tree_slot_step_, tree_word_least_;
  std::vector<std::uint8_t> tree_word_uniform_;
  std::vector<int> steps_, gather_count_, gather_chars_, gather_extra_;
  std::vector<int> order_;
  std::vector<std::uint32_t> empty_;     // join scratch: fields with no state in common
  const std::vector<int>* weights_ = nullptr;
  optim::FitDelta delta_;
};

}  // namespace qax::search
