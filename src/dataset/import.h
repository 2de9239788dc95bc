// Readers of the matrix formats users bring (NEXUS, FASTA, relaxed PHYLIP) and the
// NEXUS writer. Each reader parses its format into an ImportedMatrix and turns that
// into xread command text, so the ordinary xread builds the matrix: the same data in
// any format give the same matrix. The converters are pure: text in, text out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qax::dataset {

// Called when a converter meets bad input; never returns. The program's default
// (installed with the hooks) fails the command with error_exit; tests and the fuzz
// target put their own function here, which must throw.
using ImportFailFn = void (*)(const std::string& message);
extern ImportFailFn import_fail;
[[noreturn]] void import_error(const std::string& message);

enum class CellKind : std::uint8_t { states = 0, missing = 1, gap = 2 };

// One cell of an imported matrix. For dna the bits are A=0, G=1, C=2, T/U=3; for
// protein the letters of protein_alphabet in order; for numeric the state numbers.
struct ImportedCell {
  std::uint32_t set = 0;            // state set when kind is states (never empty)
  CellKind kind = CellKind::missing;  // missing, gap or a set of states
};

// A run of characters read with one data type (a NEXUS mixed matrix has several).
struct ImportedSegment {
  std::uint8_t format = 1;  // DataFormat: 1 numeric, 2 dna, 4 protein
  int first = 0;            // first character, from 0
  int count = 0;            // characters in the run
};

struct ImportedMatrix {
  std::string title;                             // becomes the xread title
  std::vector<std::string> taxa;                 // names as written in the file
  int nchar = 0;                                 // characters
  std::vector<ImportedSegment> segments;         // cover 0..nchar-1 in order
  std::vector<std::vector<ImportedCell>> rows;   // one per taxon, nchar cells
};

// Taxa and trees of a NEXUS TREES block, kept for the tree reader.
struct NexusTrees {
  std::string file;                                           // file they came from
  std::vector<std::pair<std::string, std::string>> translate;  // key -> taxon name (xread form)
  std::vector<std::pair<std::string, std::string>> trees;      // tree name -> parenthetical text up to ';'
  std::string text;                                           // whole block body, comments kept
};

// Options the converters need from the run: the cell width now set by nstates
// decides whether an nstates command must precede the matrix.
struct ImportOptions {
  int cell_width = 2;          // bytes per cell of the next matrix (1, 2 or 4)
  bool gaps_as_state = false;  // the user reads gaps as a state (nstates gaps)
  int name_length = 32;        // longest taxon name xread keeps (taxname +N)
};

struct ImportResult {
  std::string xread;               // commands to push on the input stack
  std::vector<std::string> notes;  // remarks for the warning channel
  NexusTrees trees;                // NEXUS only: the TREES block, if any
  int ntax = 0;                    // size read, for reports and tests
  int nchar = 0;
};

constexpr const char* protein_alphabet = "ACDEFGHIKLMNPQRSTVWYU";
constexpr const char* numeric_alphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUV";

// Name as xread takes it: letters, digits, '_' and '.' are kept, every other
// character becomes '_'; a run of dots or of four or more underscores (which xread
// reads as wildcard and significance marks) is cut to one '_'; empty becomes "_".
std::string xread_taxon_name(std::string_view name);

// The xread text of a matrix: nstates when needed, then xread with the title,
// the dimensions and one block per segment. Fails on duplicate names (after the
// conversion of names), naming the file and the taxon.
std::string matrix_to_xread(const ImportedMatrix& m, const std::string& file, const ImportOptions& opt,
                            std::vector<std::string>* notes = nullptr);

// Guess of the data type of raw sequences (FASTA, PHYLIP): digits make numeric; else
// dna when every letter is a nucleotide code and A, C, G, T, U, N are at least half of
// the letters; else protein.
std::uint8_t guess_format(const std::vector<std::string>& sequences);
// Cells of a raw sequence of the given format ('?' missing, '-' gap, '.' match char
// of the first row). Fails naming the file and taxon on an alien symbol.
void sequence_cells(const std::string& seq, std::uint8_t format, const std::vector<ImportedCell>* first_row,
                    std::vector<ImportedCell>& out, const std::string& file, const std::string& taxon);

// Converters: the whole file text in, xread text out. nexus_to_xread takes the
// text after "#NEXUS" (or the whole file; a leading "#NEXUS" is skipped).
ImportResult nexus_to_xread(std::string_view text, const std::string& file, const ImportOptions& opt = {});
ImportResult fasta_to_xread(std::string_view text, const std::string& file, const ImportOptions& opt = {});
ImportResult phylip_to_xread(std::string_view text, const std::string& file, const ImportOptions& opt = {});

// True when the text starts (after blanks) with two integers on the first line,
// the header of a PHYLIP file.
bool looks_like_phylip(std::string_view text);

// Title of an imported matrix: the file name without folders and extension.
std::string title_from_file(const std::string& file);

// The NEXUS TREES block of the last NEXUS file read (empty when it had none).
const NexusTrees& nexus_trees();
void clear_nexus_trees();

// An import may set the data type the matrix needs; the user's own reading settings
// (data type of the next matrix, gaps) come back once the imported matrix is read or
// has failed. Called by xread at its end.
void restore_reading_after_import();

// Installs the readers in the shell's import hooks (at start-up).
void install_import_hooks();

// The current data set as a NEXUS file (TAXA and CHARACTERS blocks).
std::string dataset_to_nexus();

}  // namespace qax::dataset
