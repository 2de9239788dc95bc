// Scoring kernels on real matrices: full-tree passes and join_cost evaluations per second,
// each kernel variant side by side, and a plain per-character scorer for the ratio.
// Data are read by a small local reader of the DNA xread files; QAX_DATA overrides the
// data folder.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <cstdio>

#include "dataset/dataset.h"
#include "optim/kernels.h"
#include "optim/packed.h"

using namespace qax::optim;
namespace ds = qax::dataset;

namespace {

std::string loaded_name;
std::vector<int> parent;
WorkTree tree;

std::vector<int> random_parent(std::mt19937& rng, int ntax) {
  std::vector<int> p(2 * ntax - 1, 0);
  std::vector<int> pool(ntax);
  for (int i = 0; i < ntax; ++i) pool[i] = i;
  int next = 2 * ntax - 2;
  while (pool.size() > 2) {
    int i = rng() % pool.size(); int a = pool[i]; pool.erase(pool.begin() + i);
    int j = rng() % pool.size(); int b = pool[j]; pool.erase(pool.begin() + j);
    p[a] = p[b] = next;
    pool.push_back(next--);
  }
  p[pool[0]] = p[pool[1]] = ntax;
  p[ntax] = 2 * ntax - 1;
  return p;
}

std::vector<unsigned char> cell_store;
std::vector<std::string> names;

// First tree of reference.tre (Newick, names as in the xread file) as a parent array.
bool read_reference_tree(const std::string& path, std::vector<int>& out) {
  std::FILE* f = std::fopen(path.c_str(), "r");
  if (!f) return false;
  std::string text;
  for (int c; (c = std::fgetc(f)) != EOF && c != ';';) text += static_cast<char>(c);
  std::fclose(f);
  const int ntax = static_cast<int>(names.size());
  out.assign(2 * ntax - 1, 0);
  std::vector<int> open;
  int next = ntax + 1, placed = 0;
  bool first = true;
  for (std::size_t i = 0; i < text.size();) {
    char c = text[i];
    if (c == '(') {
      int id = first ? ntax : next++;
      if (!first) out[id] = open.back();
      first = false;
      if (id > 2 * ntax - 2 && id != ntax) return false;
      open.push_back(id);
      ++i;
    } else if (c == ')') { open.pop_back(); ++i; }
    else if (c == ',' || c == ' ' || c == '\n') ++i;
    else {
      std::size_t j = i;
      while (j < text.size() && text[j] != ',' && text[j] != ')' && text[j] != '(') ++j;
      std::string name = text.substr(i, j - i);
      int t = -1;
      for (int k = 0; k < ntax; ++k) if (names[k] == name) { t = k; break; }
      if (t < 0 || open.empty()) return false;
      out[t] = open.back();
      ++placed;
      i = j;
    }
  }
  out[ntax] = next;
  return placed == ntax && next == 2 * ntax - 1;
}

// A small reader of the DNA xread files of the benchmark data (one row per taxon, IUPAC
// codes, gaps and '?' missing), filling the data set record directly.
bool read_dna_xread(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "r");
  if (!f) return false;
  char line[1 << 16];
  int nchar = 0, ntax = 0;
  while (std::fgets(line, sizeof line, f) && std::string(line).rfind("xread", 0) != 0) {}
  if (!std::fgets(line, sizeof line, f) || !std::fgets(line, sizeof line, f) ||
      std::sscanf(line, "%d %d", &nchar, &ntax) != 2) { std::fclose(f); return false; }
  auto code = [](char c) -> unsigned char {
    switch (c & ~0x20) {
      case 'A': return 1; case 'C': return 2; case 'G': return 4; case 'T': return 8; case 'U': return 8;
      case 'R': return 5; case 'Y': return 10; case 'S': return 6; case 'W': return 9; case 'K': return 12;
      case 'M': return 3; case 'B': return 14; case 'D': return 13; case 'H': return 11; case 'V': return 7;
      default: return 0xFF;
    }
  };
  cell_store.assign(static_cast<std::size_t>(nchar) * ntax, 0xFF);
  names.clear();
  int t = 0;
  while (t < ntax && std::fgets(line, sizeof line, f)) {
    if (line[0] == '&' || line[0] == '\n') continue;
    char* p = line;
    while (*p && *p != ' ' && *p != '\t') ++p;
    names.emplace_back(line, p);
    while (*p == ' ' || *p == '\t') ++p;
    for (int c = 0; c < nchar && *p && *p != '\n'; ++p) {
      if (*p == '[') {  // polymorphism: [AG]
        unsigned char v = 0;
        for (++p; *p && *p != ']'; ++p) v |= code(*p) == 0xFF ? 0 : code(*p);
        cell_store[static_cast<std::size_t>(t) * nchar + c++] = v ? v : 0xFF;
      } else {
        cell_store[static_cast<std::size_t>(t) * nchar + c++] = code(*p);
      }
    }
    ++t;
  }
  std::fclose(f);
  ds::Dataset& d = ds::dataset;
  d = ds::Dataset{};
  d.loaded = 1;
  d.ntax = ntax;
  d.nchar = nchar;
  d.cell_width = 1;
  d.taxon_active.assign(ntax, 1);
  d.chars.assign(nchar, ds::CharacterRecord{});
  d.cells = cell_store.data();
  return t == ntax;
}

// Loads data set `name` once, packs it and loads a random tree.
bool load(const std::string& name, int variant) {
  if (loaded_name != name) {
    const char* dir = std::getenv("QAX_DATA");
    std::string path = std::string(dir ? dir : QAX_BENCH_DATA) + "/" + name + "/" + name + ".xread";
    if (!read_dna_xread(path)) return false;
    loaded_name = name;
    packed.xbit = 1;
    pack_data();
    // The first reference tree (a good one, so that few joins improve it), else random.
    if (!read_reference_tree(std::string(dir ? dir : QAX_BENCH_DATA) + "/" + name + "/reference.tre", parent)) {
      std::mt19937 rng(1);
      parent = random_parent(rng, ds::dataset.ntax);
    }
    if (!load_tree(parent, tree)) return false;
  }
  kernel_override = variant;
  select_kernels_for_pack();
  return true;
}

const char* data_name(int k) { return k == 0 ? "rbcl500" : "dna2000"; }

void BM_full_score(benchmark::State& state) {
  if (!load(data_name(state.range(0)), static_cast<int>(state.range(1)))) { state.SkipWithError("no data"); return; }
  state.SetLabel(kernels.name);
  double s = 0;
  for (auto _ : state) benchmark::DoNotOptimize(s = tree_score(tree, 0));
  state.counters["length"] = s;
  state.counters["trees/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_full_two_pass(benchmark::State& state) {
  if (!load(data_name(state.range(0)), static_cast<int>(state.range(1)))) { state.SkipWithError("no data"); return; }
  state.SetLabel(kernels.name);
  for (auto _ : state) benchmark::DoNotOptimize(tree_score(tree, 3));
  state.counters["trees/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// All targets of one clip, as a swapper does: with no bound, and with the bound of the
// cheapest target minus one, as at a local optimum where no join passes (early stop).
void BM_join_cost(benchmark::State& state) {
  if (!load(data_name(state.range(0)), static_cast<int>(state.range(1)))) { state.SkipWithError("no data"); return; }
  state.SetLabel(kernels.name);
  const bool bounded = state.range(2) != 0;
  WorkTree w = tree;
  tree_score(w, 3);
  int clip = w.nterm / 2;  // a terminal: every other branch is a target
  if (w.ancestor[clip] == w.nterm) clip = w.nterm / 2 + 1;
  const int sis = cut_node(w, clip);
  prune_update(w, sis, clip);
  clip_words = packed.node_sets[clip].down_set;
  target_words = packed.node_sets[sis].branch_set;
  score_bound = 2147483647.0;
  join_cost();
  const double old_cost = join_value;
  std::vector<int> targets;
  std::vector<int> st{w.nterm};
  while (!st.empty()) {
    int n = st.back(); st.pop_back();
    if (n != w.nterm && n != 0) targets.push_back(n);
    if (n >= w.nterm) { st.push_back(w.left_child[n]); st.push_back(w.right_child[n]); }
  }
  std::vector<const std::uint32_t*> sets;
  for (int t : targets) sets.push_back(packed.node_sets[t].branch_set);
  // At a local optimum no join improves: the bound is one below the cheapest target.
  double cheapest = old_cost;
  for (const std::uint32_t* t : sets) {
    target_words = t;
    score_bound = 2147483647.0;
    join_cost();
    cheapest = std::min(cheapest, join_value);
  }
  long long passed = 0, evaluations = 0;
  for (auto _ : state) {
    score_bound = bounded ? cheapest - 1.0 : 2147483647.0;
    for (const std::uint32_t* t : sets) {
      target_words = t;
      join_cost();
      passed += join_ok;
    }
    evaluations += static_cast<long long>(sets.size());
  }
  state.counters["joins/s"] = benchmark::Counter(static_cast<double>(evaluations), benchmark::Counter::kIsRate);
  state.counters["passed"] = static_cast<double>(passed) / std::max(1LL, evaluations);
}

// A plain scorer: one character at a time, Fitch sets on the unpacked cells.
int plain_fitch(const std::vector<std::vector<int>>& kids, int root, std::vector<std::uint32_t>& sets) {
  const ds::Dataset& d = ds::dataset;
  int steps = 0;
  std::vector<int> order;
  std::vector<int> st{root};
  while (!st.empty()) { int n = st.back(); st.pop_back(); order.push_back(n); for (int c : kids[n]) st.push_back(c); }
  for (int c = 0; c < d.nchar; ++c) {
    for (int k = static_cast<int>(order.size()) - 1; k >= 0; --k) {
      int n = order[k];
      if (n < d.ntax) { std::uint32_t v = d.cell(n, c); sets[n] = v == d.missing_value() ? ~0u : v; continue; }
      std::uint32_t s = sets[kids[n][0]], t = sets[kids[n][1]];
      if (s & t) sets[n] = s & t; else { sets[n] = s | t; ++steps; }
    }
  }
  return steps;
}

void BM_plain_reference(benchmark::State& state) {
  if (!load(data_name(state.range(0)), kernel_auto)) { state.SkipWithError("no data"); return; }
  const int ntax = ds::dataset.ntax;
  std::vector<std::vector<int>> kids(2 * ntax);
  for (int n = 0; n < 2 * ntax - 1; ++n) if (n != ntax) kids[parent[n]].push_back(n);
  std::vector<std::uint32_t> sets(2 * ntax);
  int s = 0;
  for (auto _ : state) benchmark::DoNotOptimize(s = plain_fitch(kids, ntax, sets));
  state.counters["length"] = s;
  state.counters["trees/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void variants(benchmark::internal::Benchmark* b) {
  for (int data : {0, 1})
    for (int v : {kernel_32, kernel_64, kernel_avx2}) b->Args({data, v});
}
void join_variants(benchmark::internal::Benchmark* b) {
  for (int data : {0, 1})
    for (int v : {kernel_32, kernel_64, kernel_avx2})
      for (int bound : {0, 1}) b->Args({data, v, bound});
}

}  // namespace

BENCHMARK(BM_full_score)->Apply(variants)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_full_two_pass)->Apply(variants)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_join_cost)->Apply(join_variants)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_plain_reference)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
