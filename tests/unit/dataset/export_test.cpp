// The NEXUS writer: matrices read by xread in-process, written with dataset_to_nexus,
// compared with texts written out by hand, and read back through the NEXUS reader.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "app/command_table.h"
#include "app/program.h"
#include "dataset/dataset.h"
#include "dataset/dataset_commands.h"
#include "dataset/import.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"

using namespace qax;
namespace ds = qax::dataset;

namespace {

void setup() {
  app::reset_run_state();
  shell::install_command_table(app::command_records, &app::run_file_record);
  shell::init_input_stack(10, "", false);
  shell::frame_at(0).stream = nullptr;
  shell::region_tags = shell::RegionTags();
  shell::claim_arena(shell::default_ram_size);
  ds::reset_dataset_state();
  ds::install_import_hooks();
  shell::output_state.silent_flags = 7;
}

// Runs instructions as if read from a file; false when a command failed.
bool run(const std::string& text) {
  shell::init_input_stack(10, "", false);
  shell::frame_at(0).stream = nullptr;
  shell::push_text_level(text + "\n", "test");
  bool ok = true;
  while (shell::input_level() > 0 && !shell::current_frame().at_eof) {
    if (!shell::protected_call(shell::read_and_dispatch)) ok = false;
  }
  while (shell::input_level() > 0) shell::close_input();
  return ok;
}

class Export : public ::testing::Test {
 protected:
  void SetUp() override { setup(); }
};

TEST_F(Export, NumericWithPolymorphismsAndMissing) {
  ASSERT_TRUE(run("xread 'n' 4 4\n&[num]\nA 0120\nB [01]?-3\nC 1111\nx_y 3210\n;"));
  EXPECT_EQ(ds::dataset_to_nexus(),
            "#NEXUS\n\nBEGIN TAXA;\n  DIMENSIONS NTAX=4;\n  TAXLABELS\n    A\n    B\n    C\n    x_y\n  ;\nEND;\n\n"
            "BEGIN CHARACTERS;\n  DIMENSIONS NCHAR=4;\n  FORMAT DATATYPE=STANDARD MISSING=? GAP=- SYMBOLS=\"0123\";\n"
            "  MATRIX\n    A    0120\n    B    (01)??3\n    C    1111\n    x_y  3210\n  ;\nEND;\n");
}

TEST_F(Export, DnaAmbiguitiesAndMixedBlocks) {
  ASSERT_TRUE(run("xread 'm' 5 4\n&[num]\nA 01\nB 10\nC 1?\nD [12]2\n&[dna]\nA ACG\nB RYN\nC A-T\nD ?CC\n;"));
  EXPECT_EQ(ds::dataset_to_nexus(),
            "#NEXUS\n\nBEGIN TAXA;\n  DIMENSIONS NTAX=4;\n  TAXLABELS\n    A\n    B\n    C\n    D\n  ;\nEND;\n\n"
            "BEGIN CHARACTERS;\n  DIMENSIONS NCHAR=5;\n"
            "  FORMAT DATATYPE=MIXED(STANDARD:1-2,DNA:3-5) MISSING=? GAP=- SYMBOLS=\"012\";\n"
            "  MATRIX\n    A  01ACG\n    B  10RYN\n    C  1?ANT\n    D  (12)2?CC\n  ;\nEND;\n");
}

TEST_F(Export, WrittenFileReadsBackToTheSameText) {
  ASSERT_TRUE(run("nstates 32;\nxread 'p' 4 4\n&[proteins]\nA MKLV\nB [DN]ZW-\nC ????\nD [AC]KLV\n;"));
  std::string first = ds::dataset_to_nexus();
  EXPECT_NE(first.find("DATATYPE=PROTEIN"), std::string::npos);
  // With gaps as missing a protein '-' is every amino acid.
  EXPECT_NE(first.find("    B  (DN)(EQ)W(ACDEFGHIKLMNPQRSTVWYU)\n"), std::string::npos) << first;
  EXPECT_NE(first.find("    D  (AC)KLV\n"), std::string::npos) << first;
  ASSERT_TRUE(run(ds::nexus_to_xread(first, "back.nex").xread));
  EXPECT_EQ(ds::dataset_to_nexus(), first);
}

TEST_F(Export, NeedsDataAndAFileName) {
  std::remove("export_test_out.nex");
  run("export export_test_out.nex;");
  EXPECT_EQ(std::fopen("export_test_out.nex", "r"), nullptr);
  ASSERT_TRUE(run("xread 4 4 A 0000 B 0011 C 1100 D 1111 ;"));
  run("export;");
  EXPECT_EQ(std::fopen("export_test_out.nex", "r"), nullptr);
  run("export - export_test_out.nex;");
  std::FILE* f = std::fopen("export_test_out.nex", "r");
  ASSERT_NE(f, nullptr);
  char head[8] = {};
  EXPECT_EQ(std::fread(head, 1, 7, f), 7u);
  std::fclose(f);
  EXPECT_STREQ(head, "#NEXUS\n");
  std::remove("export_test_out.nex");
}

}  // namespace
