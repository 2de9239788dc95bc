// Converters of NEXUS, FASTA and PHYLIP text into xread text, checked without the
// xread reader: expected texts are written out by hand.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "dataset/import.h"
#include "shell/failure.h"

using namespace qax::dataset;

namespace {

std::string last_error;

[[noreturn]] void record_failure(const std::string& message) {
  last_error = message;
  throw qax::shell::CommandFailed{};
}

class ImportTest : public ::testing::Test {
 protected:
  ImportFailFn saved_ = nullptr;
  void SetUp() override {
    saved_ = import_fail;
    import_fail = record_failure;
    last_error.clear();
  }
  void TearDown() override { import_fail = saved_; }

  // Message of a failing conversion; empty when it did not fail.
  template <typename F>
  std::string error_of(F convert) {
    last_error.clear();
    try {
      convert();
    } catch (const qax::shell::CommandFailed&) {
      return last_error;
    }
    return "";
  }
};

std::string nexus(std::string_view text) { return nexus_to_xread(text, "t.nex").xread; }

const char* four_taxa_dna_sequential =
    "#NEXUS\n"
    "begin data; dimensions ntax=4 nchar=6;\n"
    "format datatype=dna missing=? gap=-;\n"
    "matrix\n"
    "A  ACGTAC\n"
    "B  ACG-AC\n"
    "C  AC?TAC\n"
    "D  ACGT(AG){CT}\n"
    ";\nend;\n";

const char* four_taxa_dna_xread =
    "xread\n't'\n6 4\n&[dna nogaps]\n"
    "A ACGTAC\n"
    "B ACG-AC\n"
    "C AC?TAC\n"
    "D ACGTRY\n"
    ";\n";

TEST_F(ImportTest, SequentialDnaGivesBlockXread) {
  EXPECT_EQ(nexus(four_taxa_dna_sequential), four_taxa_dna_xread);
}

TEST_F(ImportTest, InterleavedEqualsSequential) {
  const char* inter =
      "#NEXUS\n"
      "BEGIN DATA; DIMENSIONS NTAX=4 NCHAR=6;\n"
      "FORMAT DATATYPE=DNA INTERLEAVE MISSING=? GAP=-;\n"
      "MATRIX\n"
      "A  ACG\nB  ACG\nC  AC?\nD  ACG\n\n"
      "A  TAC\nB  -AC\nC  TAC\nD  T(AG){CT}\n"
      ";\nEND;\n";
  EXPECT_EQ(nexus(inter), four_taxa_dna_xread);
}

TEST_F(ImportTest, OldMacLineEndsAndByteOrderMark) {
  std::string text = std::string("\xEF\xBB\xBF") +
      "#NEXUS\rBEGIN DATA; DIMENSIONS NTAX=4 NCHAR=6;\rFORMAT DATATYPE=DNA INTERLEAVE;\rMATRIX\r"
      "A  ACG\rB  ACG\rC  AC?\rD  ACG\r\r"
      "A  TAC\rB  -AC\rC  TAC\rD  T(AG){CT}\r;\rEND;\r";
  EXPECT_EQ(nexus(text), four_taxa_dna_xread);
  text.replace(text.find("B  -AC"), 6, "B  -AJ");
  EXPECT_EQ(error_of([&] { nexus(text); }),
            "Error reading NEXUS file t.nex, line 11, taxon B: alien symbol 'J' at char. 5 (dna)");
}

TEST_F(ImportTest, CommentsQuotesAndCaseAreHandled) {
  const char* text =
      "#nexus [a comment [nested] here]\n"
      "Begin Taxa; Dimensions NTax=4; TaxLabels 'Homo sapiens' 'O''Brien' [x] Pan Gorilla-gorilla; End;\n"
      "begin characters; dimensions nchar=3;\n"
      "format datatype=standard symbols=\"0 1 2\";\n"
      "matrix\n"
      "'Homo sapiens' 0[c]1 2\n"
      "'O''Brien'     (01)1{12}\n"
      "Pan            2 2 2\n"
      "Gorilla-gorilla  ??1\n"
      ";\nend;\n";
  EXPECT_EQ(nexus(text),
            "xread\n't'\n3 4\n&[num]\n"
            "Homo_sapiens    012\n"
            "O_Brien         [01]1[12]\n"
            "Pan             222\n"
            "Gorilla_gorilla ??1\n"
            ";\n");
}

TEST_F(ImportTest, MissingGapAndMatchCharacters) {
  const char* text =
      "#NEXUS\nbegin data; dimensions ntax=4 nchar=4;\n"
      "format missing=X gap=* matchchar=. symbols=\"01\";\n"
      "matrix\n t1 0101\n t2 ..X*\n t3 1.0.\n t4 X*..\n;\nend;\n";
  EXPECT_EQ(nexus(text),
            "xread\n't'\n4 4\n&[num]\n"
            "t1 0101\nt2 01?-\nt3 1101\nt4 ?-01\n;\n");
}

TEST_F(ImportTest, SymbolsWithoutDigitsAreNumberedInOrder) {
  const char* text =
      "#NEXUS\nbegin data; dimensions ntax=4 nchar=3;\n"
      "format symbols=\"abc\";\nmatrix\n w abc\n x cba\n y (ab)a?\n z ccc\n;\nend;\n";
  EXPECT_EQ(nexus(text), "xread\n't'\n3 4\n&[num]\nw 012\nx 210\ny [01]0?\nz 222\n;\n");
}

TEST_F(ImportTest, StatesAbove15NeedWideCells) {
  const char* text =
      "#NEXUS\nbegin data; dimensions ntax=4 nchar=2;\n"
      "format symbols=\"0123456789ABCDEFGH\";\nmatrix\n w 0G\n x 1H\n y 2A\n z 33\n;\nend;\n";
  EXPECT_EQ(nexus(text), "nstates 32;\nxread\n't'\n2 4\n&[num]\nw 0G\nx 1H\ny 2A\nz 33\n;\n");
  ImportOptions wide;
  wide.cell_width = 4;
  EXPECT_EQ(nexus_to_xread(text, "t.nex", wide).xread.rfind("xread", 0), 0u);
}

TEST_F(ImportTest, MixedDataGiveOneBlockPerType) {
  const char* text =
      "#NEXUS\nbegin data; dimensions ntax=4 nchar=5;\n"
      "format datatype=mixed(standard:1-2, dna:3-5) gap=-;\nmatrix\n"
      " a 01ACG\n b 10A-G\n c 0?NNN\n d (01)1TTT\n;\nend;\n";
  EXPECT_EQ(nexus(text),
            "xread\n't'\n5 4\n&[num]\na 01\nb 10\nc 0?\nd [01]1\n"
            "&[dna nogaps]\na ACG\nb A-G\nc NNN\nd TTT\n;\n");
}

TEST_F(ImportTest, ProteinAmbiguities) {
  const char* text =
      "#NEXUS\nbegin data; dimensions ntax=4 nchar=4;\n"
      "format datatype=protein;\nmatrix\n a ACDE\n b (DN)(EQ)X?\n c (AC)WY-\n d MMMM\n;\nend;\n";
  EXPECT_EQ(nexus(text), "nstates 32;\nxread\n't'\n4 4\n&[proteins nogaps]\na ACDE\nb BZ??\nc [AC]WY-\nd MMMM\n;\n");
}

TEST_F(ImportTest, UnknownBlocksSkippedAndTreesKept) {
  const char* text =
      "#NEXUS\nbegin assumptions; usertype x = 2 0 1 1 0; end;\n"
      "begin taxa; dimensions ntax=4; taxlabels a b c 'd e'; end;\n"
      "begin characters; dimensions nchar=1; matrix a 0 b 1 c 1 'd e' 0; end;\n"
      "begin trees; translate 1 a, 2 b, 3 c, 4 'd e';\n"
      "tree one = [&R] ((1,2),(3,4));\ntree * two = (1,(2,(3,4)));\nend;\n";
  ImportResult r = nexus_to_xread(text, "dir/t.nex");
  EXPECT_EQ(r.xread, "xread\n't'\n1 4\n&[num]\na   0\nb   1\nc   1\nd_e 0\n;\n");
  ASSERT_EQ(r.trees.translate.size(), 4u);
  EXPECT_EQ(r.trees.translate[3].first, "4");
  EXPECT_EQ(r.trees.translate[3].second, "d_e");
  ASSERT_EQ(r.trees.trees.size(), 2u);
  EXPECT_EQ(r.trees.trees[0].first, "one");
  EXPECT_EQ(r.trees.trees[0].second, "[&R] ((1,2),(3,4));");
  EXPECT_EQ(r.trees.trees[1].second, "(1,(2,(3,4)));");
}

TEST_F(ImportTest, NexusWithTreesOnlyGivesTreesForTheMatrixInMemory) {
  ImportResult r = nexus_to_xread("#NEXUS\nbegin taxa; dimensions ntax=3; taxlabels a b c; end;\n"
                                  "begin trees; tree a = (1,(2,3));\nend;\n", "t.nex");
  EXPECT_EQ(r.xread, "");
  ASSERT_EQ(r.trees.trees.size(), 1u);
  EXPECT_EQ(r.trees.trees[0].second, "(1,(2,3));");
}

TEST_F(ImportTest, NexusErrorsNameFileLineAndTaxon) {
  const char* head = "#NEXUS\nbegin data; dimensions ntax=4 nchar=3;\nmatrix\n";
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 0J2\nc 000\nd 111\n;end;"); }),
            "Error reading NEXUS file t.nex, line 5, taxon b: alien symbol 'J' at char. 1 (standard)");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 01\nc 000\nd 111\n;end;"); }),
            "Error reading NEXUS file t.nex, line 6, taxon b: row is too short: 2 characters, 3 expected");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 012\nc 000\nd 11;\nend;"); }),
            "Error reading NEXUS file t.nex, line 7, taxon d: row has 2 characters, 3 expected");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 012\nc 000\n;\nend;"); }),
            "Error reading NEXUS file t.nex, line 7: MATRIX ends after 3 of 4 taxa");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 012\nc 000\nd 1"); }),
            "Error reading NEXUS file t.nex, line 7, taxon d: row has 1 characters, 3 expected");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 0(1\n;end;"); }),
            "Error reading NEXUS file t.nex, line 6, taxon b: '(' at char. 1 is never closed");
  EXPECT_EQ(error_of([&] { nexus("#NEXUS\nbegin data; [open comment\n"); }),
            "Error reading NEXUS file t.nex, line 2: comment opened here is never closed (missing ']')");
  EXPECT_EQ(error_of([&] { nexus("#NEXUS\nbegin data; dimensions ntax=4 nchar=3\nformat missing=?;\n"); }),
            "Error reading NEXUS file t.nex, line 3: unknown item 'format' in DIMENSIONS");
  EXPECT_EQ(error_of([&] { nexus("#NEXUS\nbegin data; dimensions ntax=4 nchar=0; matrix a b c d;\nend;\n"); }),
            "Error reading t.nex: the matrix has no characters");
  EXPECT_EQ(error_of([&] { nexus("#NEXUS\nbegin sets; charset a = 1-2;\nend;\n"); }),
            "Error reading NEXUS file t.nex: no DATA or CHARACTERS block with a matrix");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 0123\nc 000\nd 111\n;end;"); }),
            "Error reading NEXUS file t.nex, line 5, taxon b: row is too long: more than 3 characters");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 012\nc 000\nd 111\ne 000\n;end;"); }),
            "Error reading NEXUS file t.nex, line 8: expected ';' at the end of MATRIX (more rows than NTAX=4?)");
  EXPECT_EQ(error_of([&] { nexus("#NEXUS begin data; dimensions ntax=4 nchar=1; format symbols=\"01\"; matrix a 0 b 2 c 0 d 1;end;"); }),
            "Error reading NEXUS file t.nex, line 1, taxon b: alien symbol '2' at char. 0 (standard)");
  EXPECT_EQ(error_of([&] { nexus(std::string(head) + "a 012\nb 012\na 000\nd 111\n;end;"); }),
            "Error reading NEXUS file t.nex, line 6, taxon a: taxon appears twice in the matrix");
  EXPECT_EQ(error_of([&] { nexus(std::string("#NEXUS\n\x01\xff\x00junk", 14)); }),
            "Error reading NEXUS file t.nex, line 2: expected BEGIN, found '\\xff'");
}

TEST_F(ImportTest, NamesBecomeXreadNames) {
  EXPECT_EQ(xread_taxon_name("Homo sapiens"), "Homo_sapiens");
  EXPECT_EQ(xread_taxon_name("Canella-A"), "Canella_A");
  EXPECT_EQ(xread_taxon_name("sp. nov."), "sp._nov.");
  EXPECT_EQ(xread_taxon_name("Homo..."), "Homo_");
  EXPECT_EQ(xread_taxon_name("a    b"), "a_b");
  EXPECT_EQ(xread_taxon_name("a/b+c"), "a_b_c");
  EXPECT_EQ(xread_taxon_name(""), "_");
  const char* text =
      "#NEXUS\nbegin data; dimensions ntax=4 nchar=1;\nmatrix\n'a b' 0\na_b 1\nc 0\nd 1\n;\nend;\n";
  EXPECT_EQ(error_of([&] { nexus(text); }), "Error reading t.nex: duplicate taxon name: \"a b\" and \"a_b\" both become a_b");
}

TEST_F(ImportTest, FastaGuessesTypeAndChecksLengths) {
  ImportResult dna = fasta_to_xread(">s1 one\nACGT\nAC\n>s2\nAC-TNN\n>s3\nACGTA?\n\n>s4\nRYACGT\n", "seq.fasta");
  EXPECT_EQ(dna.xread, "xread\n'seq'\n6 4\n&[dna nogaps]\ns1_one ACGTAC\ns2     AC-TNN\ns3     ACGTA?\ns4     RYACGT\n;\n");
  ImportResult prot = fasta_to_xread(">a\nMKLV\n>b\nMKIV\n>c\nMEL-\n>d\nWKLX\n", "p.fa");
  EXPECT_EQ(prot.xread, "nstates 32;\nxread\n'p'\n4 4\n&[proteins nogaps]\na MKLV\nb MKIV\nc MEL-\nd WKL?\n;\n");
  EXPECT_EQ(error_of([&] { fasta_to_xread(">a\nACGT\n>b\nACG\n>c\nACGT\n>d\nACGT\n", "x.fasta"); }),
            "Error reading FASTA file x.fasta, taxon b: sequence of 3 characters, but a has 4 (sequences must be aligned)");
  EXPECT_EQ(error_of([&] { fasta_to_xread("ACGT\n>a\nACGT\n", "x.fasta"); }),
            "Error reading FASTA file x.fasta, line 1: expected '>' and a taxon name (this does not look like a FASTA file)");
  EXPECT_EQ(error_of([&] { fasta_to_xread(">a\nAC\n>b\nAC\n>c\nAC\n", "x.fasta"); }),
            "Error reading x.fasta: a matrix needs at least 4 taxa (found 3)");
  EXPECT_EQ(error_of([&] { fasta_to_xread(">a\n0101\n>b\n01#1\n>c\n0011\n>d\n0000\n", "x.fasta"); }),
            "Error reading x.fasta, taxon b: alien symbol '#' at char. 2 (read as numeric)");
}

TEST_F(ImportTest, PhylipSequentialAndInterleavedAgree) {
  const char* seq = "4 8\nalpha ACGTACGT\nbeta  ACGT\nACGA\ngamma ACGTACGG\ndelta AC-TACGT\n";
  const char* inter = " 4 8\nalpha ACGT\nbeta  ACGT\ngamma ACGT\ndelta AC-T\n\nACGT\nACGA\nACGG\nACGT\n";
  std::string a = phylip_to_xread(seq, "m.phy").xread;
  EXPECT_EQ(a, "xread\n'm'\n8 4\n&[dna nogaps]\nalpha ACGTACGT\nbeta  ACGTACGA\ngamma ACGTACGG\ndelta AC-TACGT\n;\n");
  EXPECT_EQ(phylip_to_xread(inter, "m.phy").xread, a);
  EXPECT_TRUE(looks_like_phylip("  12 898\nx"));
  EXPECT_TRUE(looks_like_phylip("4 8 I\n"));
  EXPECT_FALSE(looks_like_phylip("xread 4 8\n"));
  EXPECT_FALSE(looks_like_phylip("48\n"));
  EXPECT_EQ(error_of([&] { phylip_to_xread("4 8\nalpha ACGTACGT\nbeta ACGTACG\n", "m.phy"); }),
            "Error reading PHYLIP file m.phy: line 1 says 4 taxa, but the file has 2 more lines");
  EXPECT_EQ(error_of([&] { phylip_to_xread("4 8\na ACGTACGT\nb ACGTACG\nc ACGTACGT\nd ACGTACGT\n", "m.phy"); }),
            "Error reading PHYLIP file m.phy: taxon b: 7 characters, 8 expected "
            "(read as interleaved; as sequential: line 3, taxon b: 16 characters, 8 expected)");
}

// The real files: every one converts, and to the same cells as the xread file
// given with it (compared by a small independent reader of the block form).
std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST_F(ImportTest, RealFilesConvert) {
  struct Case { const char* file; int ntax, nchar; };
  const Case cases[] = {{"Longrich2010.nex", 20, 93}, {"primates.nex", 12, 898}, {"woodmouse.fasta", 15, 965},
                        {"chloroplast.phy", 19, 5144}, {"cynmix.nex", 32, 3246}};
  for (const Case& c : cases) {
    std::string path = std::string(QAX_TEST_DATA) + "/" + c.file;
    std::string text = slurp(path);
    ASSERT_FALSE(text.empty()) << path;
    std::string name = c.file;
    ImportResult r = name.ends_with(".nex") ? nexus_to_xread(text, path)
        : name.ends_with(".phy") ? phylip_to_xread(text, path) : fasta_to_xread(text, path);
    EXPECT_EQ(r.ntax, c.ntax) << c.file;
    EXPECT_EQ(r.nchar, c.nchar) << c.file;
  }
}

}  // namespace
