// Trees as text and as files: the parenthetical notation of tread and save, the compact
// binary insertion code of save/shortread, Newick and NEXUS TREES blocks. Every reader
// ends in a canonical parent array appended to the store; an error leaves the trees
// read before the faulty one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qax::trees {

// Parenthetical text of one tree: "(0 (1 2 )(3 4 ))"; names under taxname=. `tags`
// (one per node, may be null) adds "=tag " after terminals and ")".
std::string tree_to_text(const std::int32_t* tree, int ntax, bool names, const std::vector<std::string>* tags);
// Name as printed: truncated by taxname[N, or cut to the species part by taxname[!.
std::string display_name(int taxon);
// Taxon by name: exact (case-insensitive) first, then the first that the word begins.
// -1 when none.
int find_taxon_name(const std::string& word);

// Compact insertion code of one complete tree (all terminals present): bit fields
// packed low bits first; returns the number of bits.
std::size_t encode_compact(const std::int32_t* tree, int ntax, std::vector<std::uint8_t>& bits);
// Decodes a record of `nbits` bits into tree (2*ntax-1 cells, canonical). False when
// the record is damaged (a target out of range or too few bits).
bool decode_compact(const std::uint8_t* bits, std::size_t nbits, int ntax, std::int32_t* tree);

// Reads Newick text (any number of trees, each ending in ";"). Numbers are 1-based,
// or keys of `translate`. Labels after ")" are kept as the tags of the last tree.
// Returns the number of trees stored; fails through error_exit.
int read_newick_text(const std::string& text, const std::map<std::string, std::string>* translate, int group,
                     bool* had_labels);
// Reads the body of a NEXUS TREES block (TRANSLATE and TREE commands), as handed
// over by the NEXUS importer. Returns the number of trees stored.
int read_nexus_trees_block(const std::string& text);
// Installed as the Newick reader of "procedure [".
void import_newick_file(const std::string& name);

// Reads tread text from a string (tests, imports); returns the trees stored.
int read_tree_string(const std::string& text, int group);

// Auto-save: called where searches report progress; writes the alternating files
// when the interval has passed.
void tree_autosave_check(bool force);
// While set, the auto-save writes these trees instead of the store (the replicates of a
// resampling done so far).
extern const std::vector<std::vector<std::int32_t>>* autosave_rows;
// Closes an open tree file (exit step and tsave /).
void close_tree_file(bool report);
// Exit step: last auto-save, and the closing lines of an open parenthetical tree file.
void tree_files_at_exit();

// Parses arbitrary bytes as tree text, Newick and compact records without crashing.
extern "C" int fuzz_tree_text(const std::uint8_t* data, std::size_t size);

}  // namespace qax::trees
