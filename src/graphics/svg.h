// SVG diagrams of the tag tree ("ttags &file options;"), and additions by coordinates to
// a diagram left open with xysave ("ttags &+ ...;", closed by "ttags &;").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::graphics {

struct SvgSettings {
  int blength = 40;       // branch span in pixels
  int bheight = 20;       // vertical step between terminals
  int thickness = 2;      // branch thickness
  int colors = 0;         // colour branches from their tags
  int tfontsize = 14;     // font size of taxon names
  int bfontsize = 12;     // font size of branch legends
  int italics = 0;        // taxon names in italics
  int bitalics = 0;       // branch legends in italics
  int pendwidth = 0;      // font stroke
  int txtsep = 0;         // extra separation of lines of multi-line legends
  int legup = 0;          // raise branch legends
  int legshift = 0;       // shift branch legends
  int shift = 0;          // move the whole tree right
  int rotate = 0;         // counter-clockwise rotation
  int extra_x = 0, extra_y = 0;  // room left below and to the right
  std::string caption;    // caption under the tree
};

// A laid-out tree: per node the coordinates of its right end (x) and its row (y).
struct SvgLayout {
  std::vector<int> x, y;
  int width = 0, height = 0;
};

// Colour of a tag in colour mode: the colour name (empty for an RGB code), RGB values,
// width override, dashing and the text after the code.
struct TagColour {
  std::string name;        // "red" ... or "gray"; empty when rgb is used
  int rgb[3] = {0, 0, 0};
  bool use_rgb = false;
  int width = -1;          // (R,G,B,thickness:length): thickness
  int length = -1;         // and length of the branch (-1 none)
  bool dashed = false;
  std::string text;        // legend left after the code
};
[[nodiscard]] TagColour parse_tag_colour(const std::string& tag);

// XML text: &, < and > written as entities.
[[nodiscard]] std::string xml_escape(const std::string& text);

// The whole document for a tree with one tag a node (ntax from the tree store).
std::string svg_document(const std::int32_t* tree, int ntax, const std::vector<std::string>& tags,
                         const std::vector<std::string>& names, const SvgSettings& s, SvgLayout* layout,
                         bool close);

// Handler of "ttags &", installed in the tag module at start-up.
void svg_tags_command();

}  // namespace qax::graphics
