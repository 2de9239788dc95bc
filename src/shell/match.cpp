// Closest-string matching.
#include "shell/match.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>

#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::shell {

double similarity(std::string_view a, std::string_view b, double threshold) {
  constexpr int big = 10000000;
  int n = static_cast<int>(std::min<std::size_t>(a.size(), 25));
  int m = static_cast<int>(std::min<std::size_t>(b.size(), 25));
  if (n == 0 || m == 0) return 0.0;
  if (n == 1 && m == 1 && std::tolower(a[0]) != std::tolower(b[0])) return 0.0;
  int L = threshold < 0 ? std::max(n, m) : std::min(n, m);
  // Three states per cell: match/mismatch (M), gap in b (X), gap in a (Y).
  int M[26][26], X[26][26], Y[26][26];
  M[0][0] = 0;
  X[0][0] = Y[0][0] = big;
  for (int j = 1; j <= m; ++j) {
    M[0][j] = big;
    X[0][j] = big;
    Y[0][j] = j;  // a leading gap of length j
  }
  for (int i = 1; i <= n; ++i) {
    M[i][0] = big;
    X[i][0] = i;
    Y[i][0] = big;
    int row_min = big;
    for (int j = 1; j <= m; ++j) {
      int sub = std::tolower(a[i - 1]) == std::tolower(b[j - 1]) ? 0 : 1;
      int best_prev = std::min({M[i - 1][j - 1], X[i - 1][j - 1], Y[i - 1][j - 1]});
      M[i][j] = best_prev + sub;
      X[i][j] = std::min({M[i - 1][j] + 1, X[i - 1][j] + 1, Y[i - 1][j] + 1});
      Y[i][j] = std::min({M[i][j - 1] + 1, Y[i][j - 1] + 1, X[i][j - 1] + 1});
      row_min = std::min({row_min, M[i][j], X[i][j], Y[i][j]});
    }
    if (threshold > 0 && threshold > 1.0 - static_cast<double>(row_min) / L) return 0.0;
  }
  int cost = std::min({M[n][m], X[n][m], Y[n][m]});
  if (cost == 0) return 1.0;
  double s = 1.0 - static_cast<double>(cost) / L;
  return s < 0 ? 0.0 : s;
}

int closest_match(std::string_view typed, std::string_view entry, std::string_view label) {
  if (shell_state.background) return 0;
  std::string t(typed.substr(0, 25));
  std::string e(entry.substr(0, std::min<std::size_t>(25, t.size())));
  double s = similarity(t, e, shell_state.match_threshold);
  if (s >= 1.0) return 1;
  if (s < shell_state.match_threshold) return 0;
  clear_progress();
  char buf[512];
  std::snprintf(buf, sizeof buf, "\n\n\rDid you mean:\n\r%13s \"%s\"\n\r\ninstead of:\n\r     \"%s\" ?\n\r(y/n/cancel)? ",
                std::string(label).c_str(), std::string(entry).c_str(), t.c_str());
  int k = ask_key(buf, "ync");
  console_write("\n");
  if (k == 'y') return 1;
  if (k == 'n') return 0;
  error_exitf("Can't match %s name!", std::string(label).c_str());
}

}  // namespace qax::shell
