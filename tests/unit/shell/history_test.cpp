// The history ring: storing rules, the 56-entry overwrite and the file round trip.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>
#include <unistd.h>

#include "shell/history.h"
#include "shell/line_editor.h"

using namespace qax::shell;

namespace {

std::vector<std::string> ring() {
  std::vector<std::string> v;
  for (int i = 0; i < history_count(); ++i) v.emplace_back(history_entry(i));
  return v;
}

std::string temp_path(const char* stem) {
  return std::string(::testing::TempDir()) + stem + "_" + std::to_string(getpid());
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

class History : public ::testing::Test {
 protected:
  void SetUp() override { history_reset(); }
  void TearDown() override { history_reset(); }
};

}  // namespace

TEST_F(History, BlankLinesAreNotStored) {
  EXPECT_FALSE(history_add(""));
  EXPECT_FALSE(history_add("   \t "));
  EXPECT_FALSE(history_add("\n"));
  EXPECT_EQ(history_count(), 0);
  EXPECT_TRUE(history_add("mult;\n"));
  EXPECT_EQ(ring(), std::vector<std::string>{"mult;"});
}

TEST_F(History, DuplicateMovesTheCursorAfterIt) {
  history_add("a;");
  history_add("b;");
  history_add("c;");
  EXPECT_EQ(history.cursor, 3);
  EXPECT_FALSE(history_add("a;"));
  EXPECT_EQ(ring(), (std::vector<std::string>{"a;", "b;", "c;"}));
  EXPECT_EQ(history.cursor, 1);
  // A new line puts the cursor after the newest entry again.
  history_add("d;");
  EXPECT_EQ(history.cursor, 4);
}

TEST_F(History, FiftySeventhLineOverwritesTheOldest) {
  for (int i = 0; i < 60; ++i) history_add("line " + std::to_string(i));
  ASSERT_EQ(history_count(), history_entries);
  EXPECT_EQ(std::string(history_entry(0)), "line 4");
  EXPECT_EQ(std::string(history_entry(55)), "line 59");
  // After wrapping, duplicates are still found anywhere in the ring.
  EXPECT_FALSE(history_add("line 4"));
  EXPECT_EQ(history.cursor, 1);
  EXPECT_EQ(history_count(), history_entries);
}

TEST_F(History, LongLinesAreCut) {
  std::string longer(300, 'x');
  history_add(longer);
  EXPECT_EQ(std::string(history_entry(0)), std::string(255, 'x'));
}

TEST_F(History, FileRoundTrip) {
  std::string path = temp_path("hist_round");
  history_add("xread data;");
  history_add("mult = replic 10;");
  history_add("quote a, b;");
  ASSERT_TRUE(history_save_file(path));
  EXPECT_EQ(read_file(path), "3 xread data;\1mult = replic 10;\1quote a, b;\1");
  history_reset();
  ASSERT_TRUE(history_load_file(path));
  EXPECT_EQ(ring(), (std::vector<std::string>{"xread data;", "mult = replic 10;", "quote a, b;"}));
  EXPECT_EQ(history.cursor, 3);
  EXPECT_FALSE(history.dirty);
  std::remove(path.c_str());
}

TEST_F(History, FullRingRoundTripKeepsOrder) {
  std::string path = temp_path("hist_full");
  for (int i = 0; i < 70; ++i) history_add("c" + std::to_string(i));
  ASSERT_TRUE(history_save_file(path));
  std::string want = "56 ";
  for (int i = 14; i < 70; ++i) want += "c" + std::to_string(i) + "\1";
  EXPECT_EQ(read_file(path), want);
  history_reset();
  ASSERT_TRUE(history_load_file(path));
  ASSERT_EQ(history_count(), 56);
  EXPECT_EQ(std::string(history_entry(0)), "c14");
  EXPECT_EQ(std::string(history_entry(55)), "c69");
  std::remove(path.c_str());
}

TEST_F(History, CountOverFiftySixReadsFiftySix) {
  std::string path = temp_path("hist_over");
  std::string text = "60 ";
  for (int i = 0; i < 60; ++i) text += "e" + std::to_string(i) + "\1";
  write_file(path, text);
  ASSERT_TRUE(history_load_file(path));
  ASSERT_EQ(history_count(), 56);
  EXPECT_EQ(std::string(history_entry(0)), "e0");
  EXPECT_EQ(std::string(history_entry(55)), "e55");
  std::remove(path.c_str());
}

TEST_F(History, ShortOrBadFiles) {
  std::string path = temp_path("hist_bad");
  // Fewer entries than the count: what is there is taken.
  write_file(path, "5 one\1two\1");
  ASSERT_TRUE(history_load_file(path));
  EXPECT_EQ(ring(), (std::vector<std::string>{"one", "two"}));
  // A last entry without its end byte still counts.
  write_file(path, "2 one\1two");
  ASSERT_TRUE(history_load_file(path));
  EXPECT_EQ(ring(), (std::vector<std::string>{"one", "two"}));
  // No count: an empty history.
  write_file(path, "garbage\1");
  EXPECT_FALSE(history_load_file(path));
  EXPECT_EQ(history_count(), 0);
  EXPECT_TRUE(history.loaded);
  std::remove(path.c_str());
  EXPECT_FALSE(history_load_file(path));
  EXPECT_EQ(history_count(), 0);
}

TEST_F(History, SaveWritesOnlyWhenChanged) {
  std::string dir = temp_path("hist_home");
  ASSERT_EQ(system(("mkdir -p " + dir).c_str()), 0);
  const char* old_home = std::getenv("HOME");
  std::string saved_home = old_home ? old_home : "";
  setenv("HOME", dir.c_str(), 1);
  std::string path = dir + "/.qax_history";
  EXPECT_EQ(history_file_path(), path);
  write_file(path, "1 old;\1");
  history_ensure_loaded();
  EXPECT_EQ(ring(), std::vector<std::string>{"old;"});
  history_add("old;");  // a duplicate changes nothing
  write_file(path, "untouched");
  history_save();
  EXPECT_EQ(read_file(path), "untouched");
  history_add("new;");
  history_save();
  EXPECT_EQ(read_file(path), "2 old;\1new;\1");
  history_clear();
  history_save();
  EXPECT_EQ(read_file(path), "0 ");
  std::remove(path.c_str());
  rmdir(dir.c_str());
  if (old_home) setenv("HOME", saved_home.c_str(), 1);
}

TEST(LineEditor, WordJumpsStopAtBlanksAndPunctuation) {
  std::string s = "mult=replic 10 hold,5;";
  //               0    5      12 15   20
  EXPECT_EQ(word_right(s, 0), 5);
  EXPECT_EQ(word_right(s, 5), 12);
  EXPECT_EQ(word_right(s, 12), 15);
  EXPECT_EQ(word_right(s, 15), 20);
  EXPECT_EQ(word_right(s, 20), 22);
  EXPECT_EQ(word_left(s, 22), 20);
  EXPECT_EQ(word_left(s, 20), 15);
  EXPECT_EQ(word_left(s, 14), 12);
  EXPECT_EQ(word_left(s, 5), 0);
  EXPECT_EQ(word_left(s, 0), 0);
}

TEST_F(History, TabCompletesBackwardsAndEditingKeys) {
  history_add("xread a;");
  history_add("mult;");
  history_add("xmult = hit 3;");
  EditLine line;
  for (char c : std::string("x")) edit_line_key(line, c);
  edit_line_key(line, '\t');
  EXPECT_EQ(line.text, "xmult = hit 3;");
  edit_line_key(line, '\t');
  EXPECT_EQ(line.text, "xread a;");
  edit_line_key(line, '\t');  // nothing further back
  EXPECT_EQ(line.text, "xread a;");
  EXPECT_TRUE(line.bell);
  // ESC clears the line; Enter finishes it.
  edit_line_key(line, 27);
  EXPECT_EQ(line.text, "");
  EXPECT_EQ(line.cursor, 0);
  for (char c : std::string("quote ab;")) edit_line_key(line, c);
  EXPECT_EQ(edit_line_key(line, '\n'), 1);
  EXPECT_EQ(edit_line_key(line, 'z'), 0);
}

TEST(LineEditor, FullLineIgnoresMoreCharacters) {
  EditLine line;
  for (int i = 0; i < 300; ++i) edit_line_key(line, 'a' + i % 26);
  EXPECT_EQ(static_cast<int>(line.text.size()), line_editor_capacity);
  EXPECT_EQ(line.cursor, line_editor_capacity);
}

#define NCURSES_NOMACROS
#include <curses.h>

TEST_F(History, CursorKeysAndRecall) {
  EditLine line;
  for (char c : std::string("abcd")) edit_line_key(line, c);
  edit_line_key(line, KEY_LEFT);
  edit_line_key(line, KEY_LEFT);
  edit_line_key(line, 'X');
  EXPECT_EQ(line.text, "abXcd");
  edit_line_key(line, KEY_BACKSPACE);
  EXPECT_EQ(line.text, "abcd");
  edit_line_key(line, KEY_DC);
  EXPECT_EQ(line.text, "abd");
  edit_line_key(line, KEY_HOME);
  edit_line_key(line, '>');
  edit_line_key(line, KEY_END);
  edit_line_key(line, '<');
  EXPECT_EQ(line.text, ">abd<");
  history_add("first;");
  history_add("second;");
  edit_line_key(line, KEY_UP);
  EXPECT_EQ(line.text, "second;");
  edit_line_key(line, KEY_UP);
  EXPECT_EQ(line.text, "first;");
  edit_line_key(line, KEY_UP);  // no older entry
  EXPECT_EQ(line.text, "first;");
  edit_line_key(line, KEY_DOWN);
  EXPECT_EQ(line.text, "second;");
  edit_line_key(line, KEY_DOWN);
  EXPECT_EQ(line.text, "");
}
