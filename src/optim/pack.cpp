// pack_data: from the data set to the word layout of packed.h.
#include <algorithm>
#include <bit>
#include <cstring>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/kernels.h"
#include "optim/packed.h"
#include "shell/failure.h"

namespace qax::optim {

Packed packed;

namespace {

using qax::dataset::Dataset;

// Length of one character on a comb of the active taxa; used only for characters whose
// length is the same on every tree. Missing cells are all states.
int comb_length(const std::vector<std::uint32_t>& cells, bool additive) {
  int steps = 0;
  bool started = false;
  std::uint32_t set = 0;
  int lo = 0, hi = 0;
  for (std::uint32_t c : cells) {
    if (c == 0) continue;  // missing
    if (!additive) {
      if (!started) { set = c; started = true; continue; }
      if (set & c) set &= c; else { set |= c; ++steps; }
    } else {
      int clo = std::countr_zero(c), chi = 31 - std::countl_zero(c);
      if (!started) { lo = clo; hi = chi; started = true; continue; }
      if (chi < lo) { steps += lo - chi; hi = lo; lo = chi; }
      else if (clo > hi) { steps += clo - hi; lo = hi; hi = clo; }
      else { lo = std::max(lo, clo); hi = std::min(hi, chi); }
    }
  }
  return steps;
}

struct Column {
  int plan;     // plan row
  int column;   // binary column within the row
  int weight;   // column weight
};

// A character-state tree decomposed in binary variables: one column per branch of the
// tree, its states beyond the branch in the high bit. A branch that no tree can make
// change more than a fixed number of times (fewer than two taxa on a side, polymorphic
// cells aside) is a constant. False when a scored state lies outside the tree.
bool pack_state_tree(Packed& p, int c, int weight, std::uint32_t scored, std::vector<Column>& binary) {
  const std::vector<int> parent = qax::dataset::binary_state_tree(c);
  const int n = static_cast<int>(parent.size());
  if (n < 2 || n > 32) return false;
  const std::uint32_t all = n == 32 ? ~0u : (1u << n) - 1;
  if (scored & ~all) return false;
  const Dataset& d = qax::dataset::dataset;
  const std::uint32_t missing = d.missing_value();
  int constant = 0;
  bool any = false;
  for (int s = 0; s < n; ++s) {
    if (parent[s] < 0) continue;
    std::uint32_t high = 0;
    for (int x = 0; x < n; ++x) {
      int y = x, guard = 0;
      while (y >= 0 && y != s && guard++ <= n) y = parent[y];
      if (y == s) high |= 1u << x;
    }
    int low_only = 0, high_only = 0;
    for (int k = 0; k < p.nterm; ++k) {
      const std::uint32_t v = d.cell(p.from_packed[k], c);
      if (v == missing || !v) continue;
      const bool lo = (v & all & ~high) != 0, hi = (v & high) != 0;
      low_only += lo && !hi;
      high_only += hi && !lo;
    }
    if (low_only == 0 || high_only == 0) continue;
    if (low_only == 1 || high_only == 1) { ++constant; continue; }
    PackPlan row;
    row.character = c;
    row.weight = weight;
    row.kept = all;
    row.additive = 2;
    row.tree_high = high;
    row.low_state = s;
    row.cls = row.original_class = class_2bit;
    std::fill(std::begin(row.dense), std::end(row.dense), std::int8_t(-1));
    binary.push_back({static_cast<int>(p.pack_plan.size()), 0, weight});
    p.pack_plan.push_back(row);
    any = true;
  }
  p.char_constant[c] = constant;
  p.constant_steps += weight * constant;
  p.char_packed[c] = any ? 1 : 0;
  return true;
}

}  // namespace

void invalidate_pack() noexcept { packed.valid = 0; }

void ensure_packed() {
  if (!packed.valid) pack_data(false, false);
}

void pack_data(bool reduced, bool keep_search_state) {
  const Dataset& d = qax::dataset::dataset;
  if (!d.loaded || d.ntax == 0) qax::shell::error_exit("Must read data first");
  Packed& p = packed;
  const int xbit = p.xbit;
  p = Packed{};
  p.xbit = xbit;

  // Terminals: the outgroup first, then the other active taxa in order.
  p.to_packed.assign(d.ntax, -1);
  auto active = [&](int t) { return t < static_cast<int>(d.taxon_active.size()) ? d.taxon_active[t] != 0 : true; };
  if (d.outgroup >= 0 && d.outgroup < d.ntax && active(d.outgroup)) {
    p.to_packed[d.outgroup] = 0;
    p.from_packed.push_back(d.outgroup);
  }
  for (int t = 0; t < d.ntax; ++t)
    if (active(t) && p.to_packed[t] < 0) {
      p.to_packed[t] = static_cast<int>(p.from_packed.size());
      p.from_packed.push_back(t);
    }
  p.nterm = static_cast<int>(p.from_packed.size());
  p.nnodes = p.nterm > 0 ? 2 * p.nterm - 1 : 0;

  // Decide per character: constant steps, or a plan row.
  const std::uint32_t missing = d.missing_value();
  p.char_constant.assign(d.nchar, 0);
  p.char_packed.assign(d.nchar, 0);
  p.char_multiplier.assign(d.nchar, 1);
  p.char_wide.assign(d.nchar, 0);
  std::vector<std::uint32_t> cells(p.nterm);
  std::vector<Column> by_class[class_count];
  for (int c = 0; c < d.nchar; ++c) {
    const auto& rec = d.chars[c];
    if (!rec.active || rec.weight == 0 || rec.is_continuous) continue;
    int weight = rec.weight;
    if (rec.sankoff) {
      // A table whose costs between the scored states are all equal is a nonadditive
      // character of that many steps per change; any other is a wide column.
      std::uint32_t scored = 0;
      for (int k = 0; k < p.nterm; ++k) {
        const std::uint32_t v = d.cell(p.from_packed[k], c);
        if (v != missing) scored |= v;
      }
      const int user_max = qax::dataset::user_min_max.max_state(c);
      if (user_max >= 0) scored |= (user_max >= 31 ? ~0u : (2u << user_max) - 1);
      if (std::popcount(scored) <= 1) continue;
      // A state tree in binary variables: every state of the tree is open to the ancestors,
      // as in a recoded additive character.
      if (user_max < 0 && pack_state_tree(p, c, weight, scored, by_class[class_2bit])) continue;
      int common = -1;
      bool equal = true;
      for (std::uint32_t a = scored; a && equal; a &= a - 1)
        for (std::uint32_t b = scored; b; b &= b - 1) {
          const int i = std::countr_zero(a), j = std::countr_zero(b);
          if (i == j) continue;
          const int z = qax::dataset::cost_of(c, i, j);
          if (common < 0) common = z;
          if (z != common) { equal = false; break; }
        }
      if (!equal || user_max >= 0) {
        p.char_wide[c] = 1;
        p.char_packed[c] = 1;
        continue;
      }
      if (common == 0) continue;
      p.char_multiplier[c] = common;
      weight *= common;
    }
    const bool additive = rec.additive != 0 && !rec.sankoff;
    int count[32] = {};
    std::uint32_t seen = 0;
    for (int k = 0; k < p.nterm; ++k) {
      std::uint32_t v = d.cell(p.from_packed[k], c);
      if (v == missing) v = 0;
      cells[k] = v;
      seen |= v;
      for (std::uint32_t b = v; b; b &= b - 1) ++count[std::countr_zero(b)];
    }
    std::uint32_t stripped = 0;
    if (!additive) {
      for (int s = 0; s < 32; ++s) if (count[s] == 1) stripped |= 1u << s;
    } else if (seen) {
      int lo = std::countr_zero(seen), hi = 31 - std::countl_zero(seen);
      if (lo < hi && count[lo] == 1) stripped |= 1u << lo;
      if (lo < hi && count[hi] == 1) stripped |= 1u << hi;
    }
    std::uint32_t kept = seen & ~stripped;
    if (std::popcount(kept) <= 1) {
      p.char_constant[c] = comb_length(cells, additive);
      p.constant_steps += weight * p.char_constant[c];
      continue;
    }
    // Stripping: nonadditive cells made only of stripped states become missing and cost one
    // step; additive cells outside the kept range cost their distance to it.
    int lo_k = std::countr_zero(kept), hi_k = 31 - std::countl_zero(kept);
    int strip_steps = 0;
    for (int k = 0; k < p.nterm; ++k) {
      std::uint32_t v = cells[k];
      if (!v) continue;
      if (!additive) {
        if (!(v & kept)) ++strip_steps;
      } else {
        int clo = std::countr_zero(v), chi = 31 - std::countl_zero(v);
        if (chi < lo_k) strip_steps += lo_k - chi;
        else if (clo > hi_k) strip_steps += clo - hi_k;
      }
    }
    p.char_constant[c] = strip_steps;
    p.constant_steps += weight * strip_steps;
    p.char_packed[c] = 1;

    PackPlan row;
    row.character = c;
    row.weight = weight;
    row.kept = kept;
    row.stripped = stripped;
    std::fill(std::begin(row.dense), std::end(row.dense), std::int8_t(-1));
    if (additive) {
      row.additive = 1;
      row.low_state = lo_k;
      row.columns = hi_k - lo_k;
      row.cls = class_2bit;
    } else {
      int code = 0;
      for (int s = 0; s < 32; ++s) if (kept >> s & 1) row.dense[s] = static_cast<std::int8_t>(code++);
      row.cls = code == 2 ? class_2bit : code <= 4 ? class_4bit : code <= 8 ? class_8bit : class_32bit;
    }
    row.original_class = row.cls;
    int r = static_cast<int>(p.pack_plan.size());
    p.pack_plan.push_back(row);
    for (int j = 0; j < row.columns; ++j) by_class[row.cls].push_back({r, j, row.weight});
  }

  // Weight mode and the order of columns within each class.
  bool all_one = true, uniform = true;
  int first_weight = -1;
  for (int k : {0, 1, 2, 4})
    for (const Column& col : by_class[k]) {
      if (col.weight != 1) all_one = false;
      if (first_weight < 0) first_weight = col.weight;
      if (col.weight != first_weight) uniform = false;
    }
  int words_plain = 0, words_grouped = 0;
  for (int k : {0, 1, 2}) {
    int n = static_cast<int>(by_class[k].size());
    words_plain += (n + fields_per_word[k] - 1) / fields_per_word[k];
    std::vector<Column> sorted = by_class[k];
    std::stable_sort(sorted.begin(), sorted.end(), [](const Column& a, const Column& b) { return a.weight < b.weight; });
    for (std::size_t i = 0; i < sorted.size();) {
      std::size_t j = i;
      while (j < sorted.size() && sorted[j].weight == sorted[i].weight) ++j;
      words_grouped += static_cast<int>((j - i + fields_per_word[k] - 1) / fields_per_word[k]);
      i = j;
    }
  }
  if (all_one) p.weight_mode = weights_equal;
  else if (uniform || words_plain > 0.65 * words_grouped) p.weight_mode = weights_word;
  else p.weight_mode = weights_column;
  p.equal_weights = all_one ? 1 : 0;

  // Saving a word at the end of a class: when the last class-0 word is partly used and the
  // last class-1 word has room for those columns, they move up (whole plan rows, from the end
  // of the plan); otherwise the same from class 1 to class 2.
  if (p.weight_mode != weights_word) {
    auto move_up = [&](int from, int to) {
      int left = static_cast<int>(by_class[from].size()) % fields_per_word[from];
      const int used_to = static_cast<int>(by_class[to].size()) % fields_per_word[to];
      int room = used_to ? fields_per_word[to] - used_to : 0;
      if (left == 0 || left > room) return false;
      bool moved = false;
      for (int r = static_cast<int>(p.pack_plan.size()) - 1; r >= 0 && left > 0; --r) {
        PackPlan& row = p.pack_plan[r];
        if (row.cls != from || row.columns > left || row.columns > room) continue;
        auto& src = by_class[from];
        for (auto it = src.begin(); it != src.end();)
          if (it->plan == r) { by_class[to].push_back(*it); it = src.erase(it); } else ++it;
        row.cls = static_cast<std::uint8_t>(to);
        left -= row.columns;
        room -= row.columns;
        moved = true;
      }
      return moved;
    };
    if (!move_up(class_2bit, class_4bit)) move_up(class_4bit, class_8bit);
  }

  // Place columns: per class a list of words, each a list of columns (or -1 = padding).
  std::vector<std::vector<Column>> words[class_count];
  for (int k : {0, 1, 2, 4}) {
    std::vector<Column> cols = by_class[k];
    if (p.weight_mode == weights_word)
      std::stable_sort(cols.begin(), cols.end(), [](const Column& a, const Column& b) { return a.weight < b.weight; });
    for (std::size_t i = 0; i < cols.size(); ++i) {
      bool new_word = words[k].empty() || static_cast<int>(words[k].back().size()) == fields_per_word[k] ||
                      (p.weight_mode == weights_word && words[k].back().back().weight != cols[i].weight);
      if (new_word) words[k].emplace_back();
      words[k].back().push_back(cols[i]);
    }
    if (xbit && p.weight_mode == weights_equal && k != 4 && words[k].size() % 2) words[k].emplace_back();
    p.w[k] = static_cast<int>(words[k].size());
    p.columns[k] = static_cast<int>(cols.size());
  }
  p.nwide = p.columns[4];
  const int narrow = p.w[0] + p.w[1] + p.w[2];
  const int used = narrow + p.w[4];
  p.nwords = std::max(8, (used + 7) / 8 * 8);

  // Tables per word and per field.
  p.word_weight.assign(p.nwords, 0);
  p.record_base.assign(p.nwords + 1, 0);
  int records = 0;
  std::vector<std::uint32_t> tmpl_word_cls;
  int word = 0;
  for (int k : {0, 1, 2, 4}) {
    for (auto& wd : words[k]) {
      p.record_base[word] = records;
      p.word_weight[word] = wd.empty() ? 0 : wd[0].weight;
      for (int f = 0; f < fields_per_word[k]; ++f) {
        PackedChar pc;
        if (f < static_cast<int>(wd.size())) {
          const Column& col = wd[f];
          PackPlan& row = p.pack_plan[col.plan];
          pc.weight = col.weight;
          pc.character = row.character;
          pc.plan = col.plan;
          pc.column = col.column;
          pc.internal_steps = d.chars[row.character].internal_steps;
          pc.min_steps = row.additive ? 1 : std::popcount(row.kept) - 1;
          if (row.first_record < 0) row.first_record = records;
        }
        p.packed_char.push_back(pc);
        ++records;
      }
      ++word;
    }
  }
  for (int wi = word; wi <= p.nwords; ++wi) p.record_base[wi] = records;
  p.field_weight.resize(records);
  for (int i = 0; i < records; ++i) p.field_weight[i] = p.packed_char[i].weight;

  // Node arrays: down, final, union, branch, each nnodes*nwords words.
  const std::size_t per = static_cast<std::size_t>(p.nnodes) * p.nwords;
  p.storage.assign(4 * per + 8, ~0u);
  p.node_sets.resize(p.nnodes);
  for (int n = 0; n < p.nnodes; ++n) {
    std::uint32_t* base = p.storage.data() + static_cast<std::size_t>(n) * p.nwords;
    p.node_sets[n] = {base, base + per, base + 2 * per, base + 3 * per, nullptr};
  }

  // Terminal words.
  for (int t = 0; t < p.nterm; ++t) {
    std::uint32_t* ds = p.node_sets[t].down_set;
    int wd = 0;
    for (int k : {0, 1, 2, 4}) {
      const int width = field_width[k];
      const std::uint32_t fmask = width == 32 ? ~0u : ((1u << width) - 1);
      for (auto& cols : words[k]) {
        std::uint32_t value = ~0u;
        for (int f = 0; f < static_cast<int>(cols.size()); ++f) {
          const PackPlan& row = p.pack_plan[cols[f].plan];
          std::uint32_t v = d.cell(p.from_packed[t], row.character);
          if (row.additive == 2) {
            if (v == missing || !v) continue;
            const std::uint32_t field = ((v & row.kept & ~row.tree_high) ? 1u : 0u) | ((v & row.tree_high) ? 2u : 0u);
            const int shift = f * width;
            value = (value & ~(fmask << shift)) | (field << shift);
            continue;
          }
          if (v == missing || !(v & row.kept)) {
            if (!(row.additive && v != missing && v)) continue;  // missing: field stays all ones
          }
          std::uint32_t field = 0;
          if (!row.additive) {
            for (std::uint32_t b = v & row.kept; b; b &= b - 1) field |= 1u << row.dense[std::countr_zero(b)];
          } else {
            // Clamped to the kept range: a stripped end state becomes the nearest kept state
            // (its distance is in constant_steps), as every other taxon lies inside the range.
            int lo_k = row.low_state, hi_k = row.low_state + row.columns;
            int clo = std::clamp(std::countr_zero(v), lo_k, hi_k);
            int chi = std::clamp(31 - std::countl_zero(v), lo_k, hi_k);
            int threshold = row.low_state + cols[f].column + 1;
            if (clo < threshold) field |= 1;
            if (chi >= threshold) field |= 2;
          }
          const int shift = f * width;
          value = (value & ~(fmask << shift)) | (field << shift);
        }
        ds[wd++] = value;
      }
    }
  }
  pack_wide_columns(p.wide, p.from_packed, p.char_wide);
  // Under implied weighting each variable of a decomposed state tree is a fit unit: every
  // such variable has taxa of both sides, so its least steps are 1.
  p.plan_unit.assign(p.pack_plan.size(), -1);
  p.char_units.assign(d.nchar, 0);
  if (implied_settings.implied_on)
    for (std::size_t r = 0; r < p.pack_plan.size(); ++r)
      if (p.pack_plan[r].additive == 2) {
        p.plan_unit[r] = d.nchar + static_cast<int>(p.unit_char.size());
        p.unit_char.push_back(p.pack_plan[r].character);
        p.char_units[p.pack_plan[r].character] = 1;
      }
  p.layout = Layout{p.nwords, p.w[0], p.w[0] + p.w[1], narrow, used,
                    p.word_weight.data(), p.field_weight.data(), p.record_base.data()};
  p.valid = 1;
  select_kernels_for_pack();
  (void)reduced;
  (void)keep_search_state;
}

}  // namespace qax::optim
