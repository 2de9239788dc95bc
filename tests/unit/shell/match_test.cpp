// Closest-string matching: the alignment score against a plain edit distance.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "shell/match.h"
#include "shell/state.h"

namespace {

using qax::shell::similarity;

int edit_distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<int>> d(a.size() + 1, std::vector<int>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = static_cast<int>(i);
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = static_cast<int>(j);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      int sub = std::tolower(a[i - 1]) == std::tolower(b[j - 1]) ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + sub});
    }
  }
  return d[a.size()][b.size()];
}

TEST(Similarity, IdenticalIgnoringCaseIsOne) {
  EXPECT_EQ(similarity("Mult", "mult", 0.75), 1.0);
  EXPECT_EQ(similarity("xread", "XREAD", -1), 1.0);
}

TEST(Similarity, SingleDifferentCharactersScoreZero) { EXPECT_EQ(similarity("a", "b", 0.5), 0.0); }

TEST(Similarity, AgreesWithEditDistanceOnRandomWords) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> len(1, 12), letter(0, 4);
  for (int k = 0; k < 2000; ++k) {
    std::string a, b;
    for (int i = len(rng); i > 0; --i) a.push_back(static_cast<char>('a' + letter(rng)));
    for (int i = len(rng); i > 0; --i) b.push_back(static_cast<char>('a' + letter(rng)));
    int L = static_cast<int>(std::min(a.size(), b.size()));
    double want = std::max(0.0, 1.0 - static_cast<double>(edit_distance(a, b)) / L);
    ASSERT_DOUBLE_EQ(similarity(a, b, 0.0), want) << a << " / " << b;
    // With a threshold, a score at or above it is exact and a lower one may stop early at 0.
    double t = 0.6;
    double s = similarity(a, b, t);
    if (want >= t) ASSERT_DOUBLE_EQ(s, want) << a << " / " << b;
    else ASSERT_LT(s, t) << a << " / " << b;
  }
}

TEST(Similarity, OneTypoInALongWordIsClose) {
  EXPECT_NEAR(similarity("outgruop", "outgroup", 0.5), 0.75, 1e-12);
  EXPECT_GE(similarity("nelsne", "nelsen", 0.5), 0.66);
}

TEST(ClosestMatch, NeverAsksInBackground) {
  auto saved = qax::shell::shell_state;
  qax::shell::shell_state.background = 1;
  EXPECT_EQ(qax::shell::closest_match("mul", "mult", "command"), 0);
  EXPECT_EQ(qax::shell::closest_match("mult", "mult", "command"), 0);
  qax::shell::shell_state = saved;
}

}  // namespace
