// The matrix reader, saving forms, min-max steps, lists and character settings, driven
// in-process through the command shell. Messages are read back from a log file.
#include <gtest/gtest.h>

#include "common/harness.h"
#include <unistd.h>

#include <bit>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "app/command_table.h"
#include "app/program.h"
#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/lists.h"
#include "shell/output.h"
#include "shell/state.h"

using namespace qax;
namespace ds = qax::dataset;
#define D (ds::dataset)

namespace {

using qax::test::setup_shell;
using qax::test::run;
using qax::test::has;




std::string file_text(const std::string& name) {
  std::ifstream in(std::string(QAX_TEST_DATA) + "/" + name);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}


class Xread : public ::testing::Test {
 protected:
  void SetUp() override { setup_shell(); }
};

TEST_F(Xread, PlainMatrixSplitOverLines) {
  run("xread 'four' 5 4\nA 0 1 2\n 3 4\nB 1111[01]\nC ??-??\nD 0 0 0 0 0 ;");
  ASSERT_TRUE(D.loaded);
  EXPECT_EQ(D.ntax, 4);
  EXPECT_EQ(D.nchar, 5);
  EXPECT_EQ(D.title, "four");
  EXPECT_EQ(D.cell(0, 3), 8u);
  EXPECT_EQ(D.cell(1, 4), 3u);
  EXPECT_EQ(D.cell(2, 0), 0xFFFFu);
  EXPECT_EQ(D.cell(2, 2), 0xFFFFu);  // '-' numeric = missing
  EXPECT_EQ(D.taxon_names[3], "D");
}

TEST_F(Xread, TooFewTaxaAndNoCharacters) {
  std::string out = run("xread 5 3\nA 0 ;");
  EXPECT_TRUE(has(out, "Must specify number of taxa (4 or more)"));
  EXPECT_FALSE(D.loaded);
  out = run("xread A;");
  EXPECT_TRUE(has(out, "Must specify number of characters"));
  EXPECT_FALSE(D.loaded);
}

TEST_F(Xread, BlocksWithFormatsAndMatchSymbol) {
  std::string out = run(
      "nstates 32;\nxread 6 4\n&[cont]\nA 3.2-4.1 5/1\nB 4.1-3.2 0.5/1\nC ? *\nD 1 2\n"
      "&[dna gaps]\nA AC-G\nB ..A.\nC RN-?\nD AAGT\n;");
  ASSERT_TRUE(D.loaded) << out;
  EXPECT_EQ(D.cell(0, 0), 3200u | 4100u << 16);
  EXPECT_EQ(D.cell(1, 0), 3200u | 4100u << 16);
  EXPECT_EQ(D.cell(0, 1), 4000u | 6000u << 16);
  EXPECT_EQ(D.cell(1, 1), 0u | 1500u << 16);
  EXPECT_EQ(D.cell(2, 0), ds::continuous_missing);
  EXPECT_EQ(D.cell(2, 1), ds::continuous_inapplicable);
  EXPECT_EQ(D.cell(1, 2), 1u);      // match symbol copies A
  EXPECT_EQ(D.cell(1, 4), 1u);      // explicit A
  EXPECT_EQ(D.cell(0, 4), 16u);     // gap as fifth state
  EXPECT_EQ(D.cell(2, 2), 3u);      // R
  EXPECT_EQ(D.chars[0].format, ds::format_continuous);
  EXPECT_EQ(D.nblocks, 2);
  EXPECT_EQ(D.chars[3].block, 1);
  EXPECT_TRUE(has(out, "Data were read as mixed types: dna and continuous")) << out;
  out = run("nstates 32;\nxread 2 4\n&[dna]\nA A0\nB CC\nC GG\nD TT\n;");
  EXPECT_TRUE(has(out, "Taxon B - ch. 1 was non-alphanumeric for previous taxa!")) << out;
}

TEST_F(Xread, MixedDigitsAndLetters) {
  std::string out = run("nstates dna;\nxread 2 4\n&[dna]\nA AC\nB 0C\nC AC\nD AC\n;");
  EXPECT_TRUE(has(out, "Taxon B - ch. 0 was alphanumeric for previous taxa!")) << out;
  EXPECT_FALSE(D.loaded);
}

TEST_F(Xread, BlockRowLengthsAndRepeats) {
  std::string out = run("xread 4 4\n&\nA 01\nB 0\n;");
  EXPECT_TRUE(has(out, "Error reading block 0: too few chars. for B")) << out;
  out = run("xread 4 4\n&\nA 01\nB 011\n;");
  EXPECT_TRUE(has(out, "Error reading block 0: too many chars. for B")) << out;
  out = run("xread 2 4\n&\nA 01\nA 01\n;");
  EXPECT_TRUE(has(out, "each taxon can appear only once - A appears twice")) << out;
  out = run("xread 2 4\n&\nA 012\n;");
  EXPECT_TRUE(has(out, "too many characters")) << out;
  EXPECT_FALSE(D.loaded);
  run("xread 2 5\n&\nA 01\nB 01\nC 11\nD 10\nE 00\n&\nF 00\n;");
  EXPECT_FALSE(D.loaded);
}

TEST_F(Xread, AlienSymbolsAndJunk) {
  std::string out = run("xread 2 4\nA 0x\nB 00\nC 00\nD 00;");
  EXPECT_TRUE(has(out, "Found alien symbol for taxon 0 (A), char. 1 (block 0): 'x'")) << out;
  out = run("xread 2 4\nA 0[0x]\nB 00\nC 00\nD 00;");
  EXPECT_TRUE(has(out, "Unexpected state reading char. 1 for taxon A: x")) << out;
  out = run(std::string("xread 2 4\nA \x01\x02\xff\xfe\nB 00;"));
  EXPECT_FALSE(D.loaded);
  out = run("xread 3 4\nA 000\nB 000\n");  // truncated file
  EXPECT_FALSE(D.loaded);
  out = run("xread 3 4\nA 0000\nB 000\nC 000\nD 000;");  // row too long
  EXPECT_FALSE(D.loaded);
  // Still usable afterwards.
  run("xread 1 4 A 0 B 1 C 0 D 1;");
  EXPECT_TRUE(D.loaded);
}

TEST_F(Xread, WildcardAndSignificantNames) {
  run("xread 3 4\n&\nHomo_a 00\nHomo_b 01\nPan____x 10\nGor 11\n&\nHomo... 1\nPan 0\nGor 0\n;");
  ASSERT_TRUE(D.loaded);
  EXPECT_EQ(D.nchar, 3);
  EXPECT_EQ(D.cell(0, 2), 2u);
  EXPECT_EQ(D.cell(1, 2), 2u);
  EXPECT_EQ(D.cell(2, 2), 1u);
  EXPECT_EQ(D.taxon_names[2], "Pan____x");
}

TEST_F(Xread, FewerNamesThanDeclared) {
  std::string out = run("xread 2 6\n&\nA 00\nB 01\nC 10\nD 11\n;");
  ASSERT_TRUE(D.loaded);
  EXPECT_EQ(D.ntax, 4);
}

TEST_F(Xread, RescalingOnce) {
  run("nstates cont;\nxread 1 4\n&[cont]\nA 70\nB 10\nC 40\nD ?\n;");
  ASSERT_TRUE(D.loaded);
  EXPECT_EQ(D.cell(0, 0) & 0xFFFF, 65000u);
  EXPECT_EQ(D.cell(1, 0) & 0xFFFF, 0u);
  EXPECT_EQ(D.cell(2, 0) & 0xFFFF, 32500u);
  EXPECT_EQ(D.cell(3, 0), ds::continuous_missing);
  EXPECT_DOUBLE_EQ(D.scales[0].shift, 10.0);
}

TEST_F(Xread, WidthOneMissing) {
  run("nstates 8;\nxread 2 4\nA ?0\nB 7[01]\nC 00\nD 00;");
  ASSERT_TRUE(D.loaded);
  EXPECT_EQ(D.cell(0, 0), 0xFFu);
  EXPECT_EQ(D.cell(0, 0), D.missing_value());
  std::string out = run("xread 1 4\nA 8\nB 0\nC 0\nD 0;");
  EXPECT_TRUE(has(out, "alien symbol")) << out;
}

// Real files: dimensions and sample cells against the text of the file.
struct RealFile { const char* name; int nchar, ntax; };

std::vector<std::string> file_rows(const std::string& text, int ntax) {
  std::istringstream in(text);
  std::string line;
  std::vector<std::string> rows;
  bool in_matrix = false;
  while (std::getline(in, line)) {
    if (line.rfind("&[", 0) == 0) {
      in_matrix = true;
      continue;
    }
    if (in_matrix && static_cast<int>(rows.size()) < ntax && !line.empty() && line[0] != ';') rows.push_back(line);
  }
  return rows;
}

TEST_F(Xread, RealFilesReadWithoutComplaint) {
  for (RealFile f : {RealFile{"Asher2005.xread", 126, 23}, RealFile{"primates.xread", 898, 12},
                     RealFile{"chloroplast.xread", 5144, 19}}) {
    run("xwipe;");
    std::string out = run(file_text(f.name));
    ASSERT_TRUE(D.loaded) << f.name << out;
    EXPECT_FALSE(has(out, "WARNING")) << out;
    EXPECT_FALSE(has(out, "Error")) << out;
    EXPECT_EQ(D.ntax, f.ntax);
    EXPECT_EQ(D.nchar, f.nchar);
    std::vector<std::string> rows = file_rows(file_text(f.name), f.ntax);
    ASSERT_EQ(static_cast<int>(rows.size()), f.ntax);
    for (int t = 0; t < f.ntax; t += 5) {
      std::istringstream row(rows[t]);
      std::string name, cells;
      row >> name >> cells;
      EXPECT_EQ(D.taxon_names[t], name);
      if (cells.find('[') != std::string::npos) continue;
      for (int c = 0; c < f.nchar; c += 37) {
        char s = cells[c];
        std::uint32_t want;
        std::string dna = "AGCT", prot = "ACDEFGHIKLMNPQRSTVWYU";
        if (s == '?' || s == '-') want = s == '-' && f.name[0] == 'p' ? 15u : D.missing_value();
        else if (std::isdigit(s)) want = 1u << (s - '0');
        else if (f.name[0] == 'p') want = s == 'N' ? 15u : 1u << dna.find(s);
        else want = s == 'X' ? D.missing_value() : 1u << prot.find(s);
        EXPECT_EQ(D.cell(t, c), want) << f.name << " taxon " << t << " char " << c;
      }
    }
  }
}

// Round trip: save form read back gives identical cells.
std::vector<std::uint32_t> all_cells() {
  std::vector<std::uint32_t> v;
  for (int t = 0; t < D.ntax; ++t)
    for (int c = 0; c < D.nchar; ++c) v.push_back(D.cell(t, c));
  return v;
}

void round_trip(const std::string& prefix, const std::string& data) {
  run(prefix + data);
  ASSERT_TRUE(D.loaded);
  std::vector<std::uint32_t> before = all_cells();
  std::vector<std::string> names = D.taxon_names;
  std::string saved = run("xread *;");
  std::size_t at = saved.find("xread\n");
  ASSERT_NE(at, std::string::npos) << saved;
  saved = saved.substr(at);
  saved = saved.substr(0, saved.find("\n;") + 2);
  run(prefix + saved);
  ASSERT_TRUE(D.loaded) << saved;
  EXPECT_EQ(all_cells(), before) << saved;
  EXPECT_EQ(D.taxon_names, names);
}

TEST_F(Xread, RoundTrips) {
  round_trip("", "xread 'numeric' 6 4\nA 01[23]?-9\nB 1111[01]A\nC ??-??F\nD 0 0 0 0 0 0 ;");
  round_trip("nstates 32;", "xread 8 5\n&[cont]\nA 3.2-4.1 5/1\nB 4.1-3.2 0.5/1\nC ? *\nD 1 2\nE 1 1\n"
                            "&[dna gaps]\nA AC-G\nB ..A.\nC RN-?\nD AAGT\nE [AG]TT*\n&[prot]\nA LK\nB BZ\nC X-\nD ??\nE M[MK]\n;");
  round_trip("nstates 8;", "xread 3 4\nA 0?7\nB [0123456]12\nC [01]*1\nD 000;");
  round_trip("nstates dna;", "xread 4 4\n&[dna]\nA ACGT\nB RYKM\nC NN--\nD ?AAA\n;");
  round_trip("", file_text("Asher2005.xread"));
}

TEST_F(Xread, RandomData) {
  run("xread /30 10 3;");
  ASSERT_TRUE(D.loaded);
  EXPECT_EQ(D.title, "Random Data (3 states)");
  EXPECT_EQ(D.taxon_names[9], "TAX9");
  for (auto v : all_cells()) EXPECT_TRUE(v == 1 || v == 2 || v == 4);
}

// Brute force: Fitch length of every rooted binary tree on n taxa, polymorphic leaves.
// Enumerates rooted binary trees by inserting taxon k on every edge of trees of k taxa.
void enumerate(int n, int k, std::vector<int>& parent, const std::function<void(const std::vector<int>&)>& visit) {
  if (k == n) {
    visit(parent);
    return;
  }
  // Nodes: taxa 0..n-1, internal nodes n.. ; parent[-1 root].
  int nodes = static_cast<int>(parent.size());
  for (int e = 0; e < nodes; ++e) {
    if (parent[e] == -2) continue;  // taxa not yet placed
    int newnode = nodes;
    std::vector<int> p = parent;
    p.push_back(p[e]);
    p[e] = newnode;
    p[k] = newnode;
    enumerate(n, k + 1, p, visit);
  }
}

int fitch_length(const std::vector<std::uint32_t>& leaves, const std::vector<int>& parent) {
  int n = static_cast<int>(leaves.size());
  int nodes = static_cast<int>(parent.size());
  std::vector<std::vector<int>> kids(nodes);
  int root = -1;
  for (int v = 0; v < nodes; ++v) {
    if (parent[v] == -1) root = v;
    else if (parent[v] >= 0) kids[parent[v]].push_back(v);
  }
  int steps = 0;
  std::function<std::uint32_t(int)> down = [&](int v) -> std::uint32_t {
    if (v < n) return leaves[v];
    std::uint32_t a = down(kids[v][0]), b = down(kids[v][1]);
    if (a & b) return a & b;
    ++steps;
    return a | b;
  };
  down(root);
  return steps;
}

TEST(MinMax, ExactAgainstAllTrees) {
  setup_shell();
  unsigned seed = 7;
  auto rnd = [&]() { seed = seed * 1103515245u + 12345u; return (seed >> 16) & 0x7fff; };
  for (int trial = 0; trial < 60; ++trial) {
    int n = 4 + trial % 3;
    std::vector<std::uint32_t> leaves(n);
    for (auto& l : leaves) {
      l = 0;
      while (!l) l = rnd() % 16;
    }
    // Start: taxa 0 and 1 joined at node n.
    std::vector<int> parent(n + 1, -2);
    parent[0] = n;
    parent[1] = n;
    parent[n] = -1;
    int lo = 1 << 30, hi = 0;
    enumerate(n, 2, parent, [&](const std::vector<int>& p) {
      int s = fitch_length(leaves, p);
      lo = std::min(lo, s);
      hi = std::max(hi, s);
    });
    std::string text = "xread 1 " + std::to_string(n) + "\n";
    for (int t = 0; t < n; ++t) {
      text += "T" + std::to_string(t) + " [";
      for (int b = 0; b < 4; ++b)
        if (leaves[t] >> b & 1) text += std::to_string(b);
      text += "]\n";
    }
    run(text + ";");
    ASSERT_TRUE(D.loaded);
    EXPECT_EQ(D.chars[0].min_steps, lo) << text;
    EXPECT_EQ(D.chars[0].max_steps, hi) << text;
    run("nstates noexactmin;");
    EXPECT_GE(D.chars[0].min_steps, lo);
    run("nstates exactmin;");
  }
}

TEST(MinMax, Additive) {
  setup_shell();
  run("xread 1 5 A 0 B 1 C 2 D 3 E [03];");
  run("ccode + 0;");
  EXPECT_EQ(D.chars[0].min_steps, 3);
  EXPECT_EQ(D.chars[0].max_steps, 4);  // root at 1 or 2: 1+1+0+1+... bush
}

// Lists.
class Lists : public ::testing::Test {
 protected:
  void SetUp() override {
    setup_shell();
    run("xread 12 5 Alpha 000000000000 Beta 000000000000 Beetle 000000000000 Gamma 000000000000 Delta 000000000000;");
  }
  std::vector<int> named(const std::string& text, const char* label = "character") {
    shell::push_text_level(text + ";", "list");
    std::vector<std::int8_t> flags;
    int n = 0;
    bool ok = shell::protected_call([&] {
      n = std::string(label) == "taxon" ? ds::read_taxon_list(flags) : ds::read_character_list(flags);
    });
    while (shell::input_level() > 0) shell::close_input();
    std::vector<int> v;
    if (!ok) return {-99};
    for (std::size_t i = 0; i < flags.size(); ++i)
      if (flags[i]) v.push_back(flags[i] == 1 ? static_cast<int>(i) : -static_cast<int>(i) - 1000);
    (void)n;
    return v;
  }
};

TEST_F(Lists, Forms) {
  EXPECT_EQ(named("0 2.4 8"), (std::vector<int>{0, 2, 3, 4, 8}));
  EXPECT_EQ(named("4.2"), (std::vector<int>{2, 3, 4}));
  EXPECT_EQ(named(".").size(), 12u);
  EXPECT_EQ(named("9."), (std::vector<int>{9, 10, 11}));
  EXPECT_EQ(named(".2"), (std::vector<int>{0, 1, 2}));
  std::vector<int> v = named("1.10 -5");
  EXPECT_EQ(v.size(), 10u);
  EXPECT_NE(std::find(v.begin(), v.end(), -1005), v.end());
  EXPECT_EQ(named("12"), (std::vector<int>{-99}));
  EXPECT_EQ(named("Be", "taxon"), (std::vector<int>{1, 2}));
  EXPECT_EQ(named(":ta", "taxon"), (std::vector<int>{1, 4}));
  EXPECT_EQ(named("Zeta", "taxon"), (std::vector<int>{-99}));
}

TEST_F(Lists, Groups) {
  run("xgroup =0 1 2; xgroup =2 (second) 7;");
  EXPECT_EQ(named("{ 0 2 }"), (std::vector<int>{1, 2, 7}));
  EXPECT_EQ(named("{ second }"), (std::vector<int>{7}));
  EXPECT_EQ(named("{ nosuch }"), (std::vector<int>{-99}));
  std::string out = run("xread 1 4 A 0 B 0 C 0 D 0; agroup =1 B C; outgroup {1};");
  EXPECT_EQ(D.outgroup, 1);
}

TEST(Settings, Ccode) {
  setup_shell();
  run("xread 5 4 A 01201 B 01210 C 11111 D 00000;");
  run("ccode + 0 2 - 3 /5 4 *;");
  EXPECT_EQ(D.chars[0].additive, 1);
  EXPECT_EQ(D.chars[2].additive, 1);
  EXPECT_EQ(D.chars[3].additive, 0);
  EXPECT_EQ(D.chars[4].additive, 0);
  EXPECT_EQ(D.chars[4].weight, 5);
  std::string out = run("ccode /0 1;");
  EXPECT_TRUE(has(out, "Error in ccode: can't give weight"));
  out = run("ccode /1001 1;");
  EXPECT_TRUE(has(out, "Error in ccode: can't give weight"));
  out = run("ccode =101 1;");
  EXPECT_TRUE(has(out, "Internal steps can be set to a maximum of 100"));
  run("ccode ] 1; ckeep; ccode [ 1 /3 0;");
  EXPECT_EQ(D.chars[1].active, 1);
  run("ccode !;");
  EXPECT_EQ(D.chars[1].active, 0);
  EXPECT_EQ(D.chars[0].weight, 1);
  run("taxcode - 2 3;");
  EXPECT_EQ(D.taxon_active[2], 0);
  EXPECT_EQ(D.taxon_active[1], 1);
}

TEST(Settings, NstatesMinAndConversion) {
  setup_shell();
  run("xread 2 5 A 05 B 15 C 19 D 11 E 03;");
  std::string out = run("nstates min;");
  EXPECT_TRUE(has(out, "Compressed data - max. state is 1")) << out;
  EXPECT_EQ(D.cell(2, 1), D.missing_value());  // 9 occurred once
  EXPECT_EQ(D.cell(0, 1), 1u);                       // 5 became state 0
  out = run("nstates min;");
  EXPECT_TRUE(has(out, "Data cannot be compressed anymore"));
  out = run("nstates foo;");
  EXPECT_TRUE(has(out, "Found foo when expecting number or strings dna/prot/num/cont"));
  out = run("nstates 40;");
  EXPECT_TRUE(has(out, "Number of states must be 1-32"));
  run("nstates &;");
  EXPECT_EQ(D.chars[0].format, ds::format_dna);
}

}  // namespace
