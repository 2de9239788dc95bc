// The reading primitives and the input stack, driven in-process on text and file levels.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "app/program.h"
#include "common/harness.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"

using namespace qax::shell;

namespace {

// Level 0 holds `keyboard` and nothing after it (no standard input).
void start(const std::string& keyboard = "") {
  qax::app::reset_run_state();
  output_state.silent_flags = 2;
  init_input_stack(10, keyboard, false);
  frame_at(0).stream = nullptr;
}

std::string temp_name(const char* stem) {
  return std::string("/tmp/qax_input_test_") + stem + "_" + std::to_string(getpid());
}

void write_file(const std::string& name, const std::string& text) {
  std::ofstream(name, std::ios::binary) << text;
}

// Runs fn expecting it to fail; returns the message text as written to a log file.
std::string failure_text(const std::function<void()>& fn) { return qax::test::protected_text(fn); }

}  // namespace

TEST(ReadInt, ConsumesFollowingBlankAndNewline) {
  start();
  push_text_level("12 x 34\ny 56;z", "t");
  EXPECT_EQ(read_int(), 12);
  EXPECT_EQ(next_char(), 'x');
  EXPECT_EQ(read_int(), 34);
  EXPECT_EQ(next_char(), 'y');
  EXPECT_EQ(read_int(), 56);
  EXPECT_EQ(next_char(), ';');
}

TEST(ReadInt, NoDigitReadsNothing) {
  start();
  push_text_level("  abc", "t");
  EXPECT_EQ(read_int(), -1);
  EXPECT_EQ(next_char(), 'a');
}

TEST(ReadReal, ConsumesBlankButNotNewline) {
  start();
  push_text_level("1.5 x 2.25\ny .5;", "t");
  EXPECT_DOUBLE_EQ(read_real(), 1.5);
  EXPECT_EQ(next_char(), 'x');
  EXPECT_DOUBLE_EQ(read_real(), 2.25);
  EXPECT_EQ(next_char(), '\n');
  EXPECT_EQ(next_char(), 'y');
  EXPECT_DOUBLE_EQ(read_real(), 0.5);
  EXPECT_EQ(next_char(), ';');
}

TEST(ReadReal, OnePointOnly) {
  start();
  push_text_level("1.2.3;", "t");
  EXPECT_DOUBLE_EQ(read_real(), 1.2);
  EXPECT_EQ(next_char(), '.');
}

TEST(NumberLimits, FifteenDigitsForIntegers) {
  start();
  push_text_level("123456789012345;", "t");
  EXPECT_EQ(read_int(), 0x7fffffff);  // clamped to the int range, but accepted
  start();
  push_text_level("1234567890123456;", "t");
  std::string text = failure_text([] { read_int(); });
  EXPECT_NE(text.find("Number too long (max.: 15 characters)"), std::string::npos) << text;
  EXPECT_EQ(input_level(), 0);  // the failure unwound the text level
}

TEST(NumberLimits, TwentyFiveCharactersForReals) {
  start();
  push_text_level("1234567890.12345678901234;", "t");  // 25 characters
  EXPECT_NEAR(read_real(), 1234567890.12345678901234, 1e-5);
  start();
  push_text_level("1234567890.123456789012345;", "t");  // 26 characters
  std::string text = failure_text([] { read_real(); });
  EXPECT_NE(text.find("Number too long (max.: 25 characters)"), std::string::npos) << text;
}

TEST(Commas, BecomeSemicolonsOnlyAtLevelZero) {
  start("a,b\n");
  EXPECT_EQ(next_char(), 'a');
  EXPECT_EQ(next_char(), ';');
  EXPECT_EQ(next_char(), 'b');
  push_text_level("c,d", "t");
  EXPECT_EQ(next_char(), 'c');
  EXPECT_EQ(next_char(), ',');
  EXPECT_EQ(next_char(), 'd');
}

TEST(Commas, StayWhileQuoting) {
  start("a,b\n");
  shell_state.quoted_text = 1;
  EXPECT_EQ(next_char(), 'a');
  EXPECT_EQ(next_char(), ',');
}

TEST(EndOfLevel, TextLevelEndsInSyntheticSemicolon) {
  start();
  push_text_level("ab", "t");
  EXPECT_EQ(next_char(), 'a');
  EXPECT_EQ(next_char(), 'b');
  EXPECT_EQ(next_char(), '\n');
  EXPECT_EQ(next_char(), ';');
  EXPECT_EQ(input_level(), 1);
  next_char();  // the level is popped when read past its end
  EXPECT_EQ(input_level(), 0);
}

TEST(EndOfLevel, FileLevelEndsInSyntheticSemicolon) {
  start();
  std::string name = temp_name("eof");
  write_file(name, "quote x");
  std::snprintf(token_buffer, sizeof token_buffer, "%s", name.c_str());
  open_input_file(false);
  activate_input(false);
  EXPECT_EQ(read_token(), 5);
  EXPECT_STREQ(token_buffer, "quote");
  EXPECT_EQ(read_token(), 1);
  EXPECT_EQ(next_char(), '\n');
  EXPECT_EQ(next_char(), ';');
  std::remove(name.c_str());
}

TEST(LongText, TextLevelIsReadInChunksWithoutLoss) {
  start();
  std::string text;
  for (int i = 0; i < 10000; ++i) text.push_back(static_cast<char>('a' + (i * 7) % 26));
  push_text_level(text, "t");
  std::string got;
  for (std::size_t i = 0; i < text.size(); ++i) got.push_back(static_cast<char>(next_char()));
  EXPECT_EQ(got, text);
  EXPECT_EQ(next_char(), '\n');
  EXPECT_EQ(next_char(), ';');
}

TEST(LongText, FileIsReadInChunksWithoutLoss) {
  start();
  std::string text;
  for (int i = 0; i < 9000; ++i) text.push_back(i % 97 == 0 ? '\n' : static_cast<char>('A' + i % 26));
  std::string name = temp_name("long");
  write_file(name, text);
  std::snprintf(token_buffer, sizeof token_buffer, "%s", name.c_str());
  open_input_file(false);
  activate_input(false);
  std::string got;
  for (std::size_t i = 0; i < text.size(); ++i) got.push_back(static_cast<char>(next_char()));
  EXPECT_EQ(got, text);
  EXPECT_EQ(next_char(), '\n');
  std::remove(name.c_str());
}

TEST(Words, CommandWordIsLowerCaseLettersWithinTheNameLimit) {
  start();
  push_text_level("QuoTe5 abcdefghijabcdefghijabcdefghijab; abcdefghijabcdefghijabcdefghijabc;", "t");
  EXPECT_EQ(read_command_word(), 5);
  EXPECT_STREQ(token_buffer, "quote");
  EXPECT_EQ(next_char(), '5');
  EXPECT_EQ(read_command_word(), 32);  // 32 letters is the limit
  next_char();
  std::string text = failure_text([] { read_command_word(); });
  EXPECT_NE(text.find("Name too long"), std::string::npos) << text;
}

TEST(Words, NameKeepsCaseAndItsFourPunctuationMarks) {
  start();
  push_text_level("Homo_sapiens-x.y+z9", "t");
  EXPECT_EQ(read_name(), 18);
  EXPECT_STREQ(token_buffer, "Homo_sapiens-x.y+z");
}

TEST(Stack, NestingLimitAndFilesInUse) {
  start();
  std::string name = temp_name("nest");
  write_file(name, "quote x;");
  for (int i = 0; i < 10; ++i) push_text_level("x", "level");
  std::snprintf(token_buffer, sizeof token_buffer, "%s", name.c_str());
  std::string text = failure_text([] { open_input_file(false); });
  EXPECT_NE(text.find("You can't nest 10 files"), std::string::npos) << text;
  EXPECT_EQ(input_level(), 0);

  std::snprintf(token_buffer, sizeof token_buffer, "%s", name.c_str());
  open_input_file(false);
  activate_input(false);
  std::snprintf(token_buffer, sizeof token_buffer, "%s", name.c_str());
  text = failure_text([] { open_input_file(false); });
  EXPECT_NE(text.find("File " + name + " already in use"), std::string::npos) << text;
  std::remove(name.c_str());

  std::snprintf(token_buffer, sizeof token_buffer, "%s", "/nonexistent/qax_file");
  text = failure_text([] { open_input_file(false); });
  EXPECT_NE(text.find("Can't open /nonexistent/qax_file"), std::string::npos) << text;
}

TEST(Stack, UnwindLeavesNothingToRead) {
  start("quote a; quote b;\n");
  EXPECT_EQ(read_command_word(), 5);
  push_text_level("more text", "t");
  push_text_level("and more", "u");
  unwind_input();
  EXPECT_EQ(input_level(), 0);
  EXPECT_EQ(current_frame().text[current_frame().pos], 0);
}
