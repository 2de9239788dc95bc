// SVG diagrams: colour codes of tags, escaping, the fixed templates of the document and
// the layout of a small tree.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "graphics/svg.h"
#include "trees/store.h"

namespace qax {
namespace {

using graphics::parse_tag_colour;

TEST(SvgColours, DigitSlashTextGivesTheColourAndTheText) {
  auto c = parse_tag_colour("3/text");
  EXPECT_EQ(c.name, "cyan");
  EXPECT_EQ(c.text, "text");
  EXPECT_FALSE(c.dashed);
  EXPECT_EQ(parse_tag_colour("0").name, "red");
  EXPECT_EQ(parse_tag_colour("9").name, "yellow");
  EXPECT_EQ(parse_tag_colour("0").text, "");
}

TEST(SvgColours, TwoDigitsOrOtherTextAreGray) {
  EXPECT_EQ(parse_tag_colour("12").name, "gray");
  EXPECT_EQ(parse_tag_colour("x/abc").name, "gray");
  EXPECT_EQ(parse_tag_colour("x/abc").text, "abc");
}

TEST(SvgColours, RgbCodesWidthsAndDashes) {
  auto c = parse_tag_colour("(10,20,300,5:40)/legend");
  EXPECT_TRUE(c.use_rgb);
  EXPECT_EQ(c.rgb[0], 10);
  EXPECT_EQ(c.rgb[1], 20);
  EXPECT_EQ(c.rgb[2], 255);
  EXPECT_EQ(c.width, 5);
  EXPECT_EQ(c.length, 40);
  EXPECT_EQ(c.text, "legend");
  auto d = parse_tag_colour("-2/x");
  EXPECT_TRUE(d.dashed);
  EXPECT_EQ(d.name, "green");
}

TEST(SvgText, Escaping) { EXPECT_EQ(graphics::xml_escape("a<b & \"c\">"), "a&lt;b &amp; &quot;c&quot;&gt;"); }

TEST(SvgDocument, TemplatesAndLayout) {
  // Four taxa: (0 (1 (2 3))), root 4, nodes 5 and 6.
  trees::tree_store_clear();
  const int ntax = 4;
  std::vector<std::int32_t> tree = {4, 5, 6, 6, 7, 4, 5};
  std::vector<std::string> tags(7), names = {"A", "B", "C", "D&E"};
  tags[5] = "87";
  tags[6] = "3/x<y";
  graphics::SvgSettings s;
  graphics::SvgLayout layout;
  const std::string doc = graphics::svg_document(tree.data(), ntax, tags, names, s, &layout, true);
  EXPECT_EQ(doc.rfind("<?xml version=\"1.0\"?>\n<svg width=\"", 0), 0u);
  EXPECT_NE(doc.find("<defs>\n    <filter x=\"0\" y=\"0.0\" width=\"1\" height=\"1.0\" id=\"solid\">\n"
                     "      <feFlood flood-color=\"white\"/>\n      <feComposite in=\"SourceGraphic\"/>\n    </filter>"),
            std::string::npos);
  EXPECT_NE(doc.find("<g stroke-width=\"2\" stroke=\"black\" font-family=\"Verdana\" font-size=\"14\">\n"), std::string::npos);
  EXPECT_NE(doc.find("<text filter=\"url(#solid)\" x=\""), std::string::npos);
  EXPECT_NE(doc.find(">87</text>\n"), std::string::npos);
  EXPECT_NE(doc.find(">3/x&lt;y</text>\n"), std::string::npos);
  EXPECT_NE(doc.find(">D&amp;E</text>\n"), std::string::npos);
  EXPECT_EQ(doc.substr(doc.size() - 12), "</g>\n</svg>\n");
  // Terminals bheight apart, in drawing order; internal nodes on the mean row of their
  // children; each level blength further right, terminals at the right column.
  EXPECT_EQ(layout.y[1] - layout.y[0], s.bheight);
  EXPECT_EQ(layout.y[3] - layout.y[2], s.bheight);
  EXPECT_EQ(layout.y[6], (layout.y[2] + layout.y[3]) / 2);
  EXPECT_EQ(layout.y[5], (layout.y[1] + layout.y[6]) / 2);
  EXPECT_EQ(layout.x[6] - layout.x[5], s.blength);
  EXPECT_EQ(layout.x[0], layout.x[3]);
  // Colour mode: the second tag colours its branch cyan and keeps the text.
  s.colors = 1;
  const std::string col = graphics::svg_document(tree.data(), ntax, tags, names, s, nullptr, true);
  EXPECT_NE(col.find("stroke=\"cyan\"/>\n"), std::string::npos);
  EXPECT_NE(col.find("stroke=\"gray\"/>\n"), std::string::npos);
  EXPECT_NE(col.find("style=\"stroke:cyan\" stroke-width=\"0\">x&lt;y</text>\n"), std::string::npos);
  // Lengths in the codes: the branch of node 6 spans 3 times blength, the others 1.
  std::vector<std::string> long_tags = tags;
  long_tags[6] = "(0,0,255,2:3)";
  graphics::SvgLayout prop;
  graphics::svg_document(tree.data(), ntax, long_tags, names, s, &prop, true);
  EXPECT_EQ(prop.x[6] - prop.x[5], 3 * s.blength);
  EXPECT_EQ(prop.x[2] - prop.x[6], s.blength);
  EXPECT_EQ(prop.x[5] - prop.x[4], s.blength);
  // Rotated: the group turns and the canvas swaps its sides.
  s.rotate = 1;
  const std::string rot = graphics::svg_document(tree.data(), ntax, tags, names, s, nullptr, true);
  EXPECT_NE(rot.find("transform=\"translate(0,"), std::string::npos);
  EXPECT_NE(rot.find("rotate(-90,0,0)\""), std::string::npos);
}

}  // namespace
}  // namespace qax
