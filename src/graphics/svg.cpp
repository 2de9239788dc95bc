// SVG diagrams of the tag tree. The tree is laid out as a rectangular cladogram:
// terminals on rows bheight apart, each internal node on the mean row of its children,
// each level blength to the right of its parent. Branch legends sit on their branch over
// a white filter; names follow the terminals. All output is built from fixed templates.
#include "graphics/svg.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "shell/failure.h"
#include "shell/file_access.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/notation.h"
#include "trees/store.h"
#include "trees/tags.h"

namespace qax::graphics {

using namespace qax::shell;
using qax::trees::tree_store;

namespace {

const char* const colour_names[10] = {"red", "blue", "green", "cyan", "brown",
                                      "pink", "orange", "purple", "magenta", "yellow"};

std::string format(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* f, ...) {
  char buffer[4096];
  va_list ap;
  va_start(ap, f);
  std::vsnprintf(buffer, sizeof buffer, f, ap);
  va_end(ap);
  return buffer;
}

// Width of a text in pixels, estimated from the font size.
int text_width(const std::string& text, int fontsize) { return static_cast<int>(text.size() * fontsize * 0.62) + 2; }

// An SVG file left open by xysave, for additions.
struct OpenDiagram {
  std::FILE* stream = nullptr;
  std::string name;
  SvgLayout layout;
};
OpenDiagram open_diagram;

}  // namespace

std::string xml_escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default:
        if (static_cast<unsigned char>(c) >= 32 || c == '\t') out.push_back(c);
    }
  }
  return out;
}

TagColour parse_tag_colour(const std::string& tag) {
  TagColour tc;
  std::size_t i = 0;
  if (i < tag.size() && tag[i] == '-') {
    tc.dashed = true;
    ++i;
  }
  if (i < tag.size() && tag[i] == '(') {
    const std::size_t close = tag.find(')', i);
    if (close != std::string::npos) {
      int r = 0, g = 0, b = 0, w = -1, len = 0;
      const std::string code = tag.substr(i + 1, close - i - 1);
      const int n = std::sscanf(code.c_str(), "%d,%d,%d,%d:%d", &r, &g, &b, &w, &len);
      if (n >= 3) {
        tc.use_rgb = true;
        tc.rgb[0] = std::clamp(r, 0, 255);
        tc.rgb[1] = std::clamp(g, 0, 255);
        tc.rgb[2] = std::clamp(b, 0, 255);
        if (n >= 4) tc.width = std::max(0, w);
        if (n >= 5) tc.length = std::max(0, len);
        std::size_t rest = close + 1;
        if (rest < tag.size() && tag[rest] == '/') ++rest;
        tc.text = tag.substr(rest);
        return tc;
      }
    }
  }
  // A single digit, alone or before "/", is a colour; anything else is ambiguous (gray).
  const std::size_t slash = tag.find('/', i);
  const std::string code = tag.substr(i, slash == std::string::npos ? std::string::npos : slash - i);
  if (code.size() == 1 && std::isdigit(static_cast<unsigned char>(code[0]))) tc.name = colour_names[code[0] - '0'];
  else tc.name = "gray";
  tc.text = slash == std::string::npos ? std::string() : tag.substr(slash + 1);
  return tc;
}

std::string svg_document(const std::int32_t* tree, int ntax, const std::vector<std::string>& tags,
                         const std::vector<std::string>& names, const SvgSettings& s, SvgLayout* layout_out,
                         bool close) {
  const int end = tree[ntax];
  const int nodes = 2 * ntax - 1;
  std::vector<std::vector<int>> kids(nodes);
  for (int v = end - 1; v >= 0; --v) {
    if (v == ntax || (v < ntax && !trees::terminal_present(tree, v, ntax))) continue;
    kids[tree[v]].insert(kids[tree[v]].begin(), v);
  }
  // Terminal rows in drawing order, depth of every node.
  std::vector<int> depth(nodes, 0), row_y(nodes, 0), col_x(nodes, 0);
  std::vector<int> order;
  std::vector<int> stack = {ntax};
  int maxdepth = 0;
  while (!stack.empty()) {
    const int v = stack.back();
    stack.pop_back();
    order.push_back(v);
    for (auto it = kids[v].rbegin(); it != kids[v].rend(); ++it) {
      depth[*it] = depth[v] + 1;
      maxdepth = std::max(maxdepth, depth[*it]);
      stack.push_back(*it);
    }
  }
  const int* m = trees::display_settings.margins;
  const int left = m[0] + s.shift, top = m[1] + s.bfontsize + s.legup;
  // Terminals all end at the right column; internal nodes at their level.
  int row = 0;
  for (int v : order)
    if (v < ntax) row_y[v] = top + (row++) * s.bheight;
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const int v = *it;
    if (v >= ntax && !kids[v].empty()) {
      long long sum = 0;
      for (int k : kids[v]) sum += row_y[k];
      row_y[v] = static_cast<int>(sum / static_cast<long long>(kids[v].size()));
    }
  }
  for (int v : order) col_x[v] = left + (v < ntax ? maxdepth : depth[v]) * s.blength + s.blength;
  col_x[ntax] = left + s.blength;
  // In colour mode, branch lengths given in the codes ("(R,G,B,thickness:length)") place
  // each node that far (times blength) right of its parent; branches without one get 1.
  if (s.colors) {
    bool any = false;
    std::vector<int> given(nodes, -1);
    for (int v = 0; v < end && v < static_cast<int>(tags.size()); ++v)
      if (!tags[v].empty()) {
        const TagColour c = parse_tag_colour(tags[v]);
        if (c.length >= 0) {
          given[v] = c.length;
          any = true;
        }
      }
    if (any)
      for (int v : order)
        if (v != ntax) col_x[v] = col_x[tree[v]] + (given[v] >= 0 ? given[v] : 1) * s.blength;
  }
  // Extent, legends included.
  long long maxx = 0, maxy = 0;
  for (int v : order) {
    maxx = std::max<long long>(maxx, col_x[v]);
    maxy = std::max<long long>(maxy, row_y[v]);
  }
  for (int t = 0; t < ntax; ++t)
    if (trees::terminal_present(tree, t, ntax))
      maxx = std::max<long long>(maxx, col_x[t] + 6 + text_width(names[t], s.tfontsize));
  for (int v = 0; v < end; ++v) {
    if (v >= static_cast<int>(tags.size()) || tags[v].empty() || v < ntax) continue;
    const int x0 = v == ntax ? left : col_x[tree[v]];
    for (const auto& line : trees::tag_lines(tags[v]))
      maxx = std::max<long long>(maxx, x0 + s.legshift + text_width(line, s.bfontsize) + 4);
  }
  int width = static_cast<int>(maxx) + m[2] + s.extra_x;
  int height = static_cast<int>(maxy) + s.tfontsize + m[3] + s.extra_y + (s.caption.empty() ? 0 : 2 * s.tfontsize);
  std::string out;
  out += format("<?xml version=\"1.0\"?>\n<svg width=\"%i\" height=\"%i\"", s.rotate ? height : width,
                s.rotate ? width : height);
  out += " xmlns=\"http://www.w3.org/2000/svg\">\n";
  out += "<defs>\n    <filter x=\"0\" y=\"0.0\" width=\"1\" height=\"1.0\" id=\"solid\">\n"
         "      <feFlood flood-color=\"white\"/>\n      <feComposite in=\"SourceGraphic\"/>\n    </filter>";
  out += "\n</defs>\n";
  std::string group = format("<g stroke-width=\"%i\" stroke=\"black\" font-family=\"Verdana\" font-size=\"%i\"",
                             s.thickness, s.tfontsize);
  if (s.italics) group += " font-style=\"italic\"";
  if (s.rotate) group += format(" transform=\"translate(0,%i) rotate(-90,0,0)\"", width);
  out += group + ">\n";
  // Branches: a vertical line joining the children of each node, a horizontal line for
  // every branch, coloured from its tag in colour mode.
  const auto& tagv = tags;
  auto line = [&](int x1, int y1, int x2, int y2, const TagColour* c) {
    if (!c) {
      out += format("<line x1=\"%i\" y1=\"%i\" x2=\"%i\" y2=\"%i\" />\n", x1, y1, x2, y2);
      return;
    }
    std::string l;
    if (c->use_rgb)
      l = format("<line x1=\"%i\" y1=\"%i\" x2=\"%i\" y2=\"%i\" stroke=\"rgb(%i,%i,%i)\" stroke-width=\"%i\"/>\n", x1,
                 y1, x2, y2, c->rgb[0], c->rgb[1], c->rgb[2], c->width >= 0 ? c->width : s.thickness);
    else
      l = format("<line x1=\"%i\" y1=\"%i\" x2=\"%i\" y2=\"%i\" stroke=\"%s\"/>\n", x1, y1, x2, y2, c->name.c_str());
    if (c->dashed) l.insert(l.size() - 3, " style=\"stroke-dasharray:5 3\"");
    out += l;
  };
  std::vector<TagColour> colour(nodes);
  std::vector<std::uint8_t> coloured(nodes, 0);
  if (s.colors)
    for (int v = 0; v < end; ++v)
      if (v < static_cast<int>(tagv.size()) && !tagv[v].empty()) {
        colour[v] = parse_tag_colour(tagv[v]);
        coloured[v] = 1;
      }
  for (int v : order) {
    if (kids[v].size() >= 1 && v >= ntax) {
      const int y1 = row_y[kids[v].front()], y2 = row_y[kids[v].back()];
      line(col_x[v], y1, col_x[v], y2, coloured[v] ? &colour[v] : nullptr);
    }
    const int x0 = v == ntax ? left : col_x[tree[v]];
    line(x0, row_y[v], col_x[v], row_y[v], coloured[v] ? &colour[v] : nullptr);
  }
  // Names.
  for (int t = 0; t < ntax; ++t) {
    if (!trees::terminal_present(tree, t, ntax)) continue;
    out += format("<text x=\"%i\" y=\"%i\" stroke-width=\"%i\">%s</text>\n", col_x[t] + 6, row_y[t] + s.tfontsize / 3,
                  s.pendwidth, xml_escape(names[t]).c_str());
  }
  // Branch legends, over the filter, centred on the branch; multi-line ones in a box.
  std::string legends;
  for (int v = 0; v < end; ++v) {
    if (v >= static_cast<int>(tagv.size()) || tagv[v].empty()) continue;
    std::string text = s.colors ? colour[v].text : tagv[v];
    if (text.empty()) continue;
    std::vector<std::string> lines = trees::tag_lines(text);
    const int x0 = v == ntax ? left : col_x[tree[v]];
    const int mid = (x0 + col_x[v]) / 2 + s.legshift;
    const int step = s.bfontsize + s.txtsep;
    int widest = 0;
    for (const auto& l : lines) widest = std::max(widest, text_width(l, s.bfontsize));
    int y = row_y[v] - 3 - s.legup;
    const bool multi = lines.size() > 1 && trees::tag_settings.position != 'd';
    if (multi) {
      const int h = static_cast<int>(lines.size()) * step;
      if (trees::tag_settings.position == 'a') y = row_y[v] - 3 - h + step;
      else if (trees::tag_settings.position == 'b') y = row_y[v] + step;
      else y = row_y[v] - h / 2 + step - 3;
      legends += format("<rect x=\"%i\" y=\"%i\"", mid - widest / 2 - 2, y - step + 2);
      legends += format(" width=\"%i\" height=\"%i\"", widest + 4, h + 2);
      legends += " style=\"fill:rgb(255,255,255);stroke:black;stroke-width:1\"/>\n";
    }
    for (const auto& l : lines) {
      const int x = mid - text_width(l, s.bfontsize) / 2;
      const std::string t = xml_escape(l);
      if (s.colors && coloured[v] && colour[v].use_rgb)
        legends += format("<text filter=\"url(#solid)\" x=\"%i\" y=\"%i\" style=\"stroke:rgb(%i,%i,%i)\" stroke-width=\"%i\">%s</text>\n",
                          x, y, colour[v].rgb[0], colour[v].rgb[1], colour[v].rgb[2], s.pendwidth, t.c_str());
      else if (s.colors && coloured[v])
        legends += format("<text filter=\"url(#solid)\" x=\"%i\" y=\"%i\" style=\"stroke:%s\" stroke-width=\"%i\">%s</text>\n", x,
                          y, colour[v].name.c_str(), s.pendwidth, t.c_str());
      else
        legends += format("<text filter=\"url(#solid)\" x=\"%i\" y=\"%i\" stroke-width=\"%i\">%s</text>\n", x, y,
                          s.pendwidth, t.c_str());
      y += step;
      if (!multi) break;
    }
  }
  if (!legends.empty()) {
    std::string g = format("<g font-size=\"%i\"", s.bfontsize);
    if (s.bitalics) g += " font-style=\"italic\"";
    else if (s.italics) g += " font-style=\"normal\"";
    out += g + ">\n" + legends + "</g>\n";
  }
  if (!s.caption.empty())
    out += format("<text x=\"%i\" y=\"%i\" stroke-width=\"%i\">%s</text>\n", left, static_cast<int>(maxy) + 2 * s.tfontsize,
                  s.pendwidth, xml_escape(s.caption).c_str());
  if (close) out += "</g>\n</svg>\n";
  if (layout_out) {
    layout_out->x = col_x;
    layout_out->y = row_y;
    layout_out->width = width;
    layout_out->height = height;
  }
  return out;
}

namespace {

int option_int(const char* message) {
  const int c = peek_char();
  if (!std::isdigit(c) && c != '-') error_exit(message);
  return read_int();
}

// "(R,G,B,...)" codes of the additions: the numbers inside the parentheses.
std::vector<double> read_code() {
  if (!accept_char('(')) error_exit("Indicate color in parentheses (as for tags)");
  std::string code;
  for (int c = next_char(); c != ')'; c = next_char()) {
    if (c == ';' || c == 0 || c == EOF) error_exit("Indicate color in parentheses (as for tags)");
    code.push_back(static_cast<char>(c));
    if (code.size() > 255) error_exit("Color code too long (max. 255 characters)");
  }
  std::vector<double> v;
  const char* p = code.c_str();
  while (*p) {
    char* e = nullptr;
    const double x = std::strtod(p, &e);
    if (e == p) {
      ++p;
      continue;
    }
    v.push_back(x);
    p = e;
  }
  return v;
}

void additions() {
  auto& d = open_diagram;
  if (!d.stream) error_exit("To use \"ttag &+\" you must have saved coordinates\n(with xysave) in a previous call to \"ttag &\"");
  read_token();
  std::string w = token_buffer;
  for (char& c : w) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (w == "write") {
    std::string text = read_rest_of_command();
    std::fputs(text.c_str(), d.stream);
    std::fputc('\n', d.stream);
  } else if (w == "text") {
    const double x = read_real(), y = read_real();
    int r = 0, g = 0, b = 0, size = 12, stroke = 1;
    if (peek_char() == '(') {
      auto v = read_code();
      if (v.size() >= 3) { r = static_cast<int>(v[0]); g = static_cast<int>(v[1]); b = static_cast<int>(v[2]); }
      if (v.size() >= 4) size = static_cast<int>(v[3]);
      if (v.size() >= 5) stroke = static_cast<int>(v[4]);
    }
    std::string text = read_rest_of_command();
    if (text.size() > 1024) error_exit("Text to write too long (max. 1024)");
    std::fprintf(d.stream, "<text x=\"%.2f\" y=\"%.2f\" font-size=\"%i\" style=\"stroke:rgb(%i,%i,%i)\" stroke-width=\"%i\">%s</text>\n",
                 x, y, size, r, g, b, stroke, xml_escape(text).c_str());
  } else if (w == "line") {
    const double x1 = read_real(), y1 = read_real(), x2 = read_real(), y2 = read_real();
    int r = 0, g = 0, b = 0, width = 1;
    if (peek_char() == '(') {
      auto v = read_code();
      if (v.size() >= 3) { r = static_cast<int>(v[0]); g = static_cast<int>(v[1]); b = static_cast<int>(v[2]); }
      if (v.size() >= 4) width = static_cast<int>(v[3]);
    }
    const bool dashed = r < 0;
    std::string l = format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\"  stroke=\"rgb(%i,%i,%i)\" stroke-width=\"%i\"/>\n",
                           x1, y1, x2, y2, std::abs(r), g, b, width);
    if (dashed) l.insert(l.size() - 3, " style=\"stroke-dasharray:5 3\"");
    std::fputs(l.c_str(), d.stream);
  } else if (w == "rect") {
    const double x1 = read_real(), y1 = read_real(), x2 = read_real(), y2 = read_real();
    std::vector<double> lc, fc;
    if (peek_char() == '(') lc = read_code();
    if (peek_char() == '(') fc = read_code();
    const bool dashed = lc.size() >= 1 && lc[0] < 0;
    std::string t;
    if (fc.size() >= 3)
      t = format("<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" style=\"fill:rgb(%i,%i,%i);stroke:",
                 std::min(x1, x2), std::min(y1, y2), std::abs(x2 - x1), std::abs(y2 - y1), static_cast<int>(fc[0]),
                 static_cast<int>(fc[1]), static_cast<int>(fc[2]));
    else
      t = format("<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" style=\"fill:none;stroke:", std::min(x1, x2),
                 std::min(y1, y2), std::abs(x2 - x1), std::abs(y2 - y1));
    const int lr = lc.size() >= 3 ? static_cast<int>(std::abs(lc[0])) : 0;
    const int lg = lc.size() >= 3 ? static_cast<int>(lc[1]) : 0;
    const int lb = lc.size() >= 3 ? static_cast<int>(lc[2]) : 0;
    const double lw = lc.size() >= 4 ? lc[3] : 1.0;
    t += format("rgb(%i,%i,%i);stroke-width:%.2f", lr, lg, lb, lw);
    if (fc.size() >= 4) t += format(";fill-opacity:%.2f", std::clamp(fc[3], 0.0, 100.0) / 100.0);
    if (dashed) t += ";stroke-dasharray:5 3";
    t += "\" />\n";
    std::fputs(t.c_str(), d.stream);
  } else {
    error_exit("Expected option (\"write\", \"line\" , \"text\", \"rect\")");
  }
}

}  // namespace

void svg_tags_command() {
  auto& d = open_diagram;
  if (peek_char() == ';') {
    if (!d.stream) error_exit("No SVG file open");
    std::fputs("</g>\n</svg>\n", d.stream);
    std::fclose(d.stream);
    d.stream = nullptr;
    out_text({"Closed SVG file ", d.name, "\n"});
    return;
  }
  if (accept_char('+')) {
    additions();
    return;
  }
  if (!trees::tags_defined()) error_exit("No tree-tags defined!");
  if (!read_token()) error_exit("Must give file name");
  const std::string name = token_buffer;
  SvgSettings s;
  bool keep_open = false;
  for (;;) {
    const int c = peek_char();
    if (c == ';') break;
    if (!std::isalpha(c)) {
      next_char();
      error_exitf("Unrecognized option for SVG output: %c", c);
    }
    read_token();
    std::string w = token_buffer;
    for (char& ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (w == "blength") s.blength = option_int("String \"blength\" must be followed by branch length (in pixels)");
    else if (w == "bheight") s.bheight = option_int("String \"bheight\" must be followed by branch height (in pixels)");
    else if (w == "thickness") s.thickness = option_int("String \"thickness\" must be followed by branch thickness (in pixels)");
    else if (w == "colors" || w == "colours") s.colors = 1;
    else if (w == "fontsize") s.tfontsize = s.bfontsize = option_int("String \"fontsize\" must be followed by font size");
    else if (w == "tfontsize") s.tfontsize = option_int("String \"fontsize\" must be followed by font size");
    else if (w == "bfontsize") s.bfontsize = option_int("String \"fontsize\" must be followed by font size");
    else if (w == "italics") s.italics = 1;
    else if (w == "bitalics") s.bitalics = 1;
    else if (w == "pendwidth") s.pendwidth = option_int("String \"pendwidth\" must be followed by font stroke");
    else if (w == "txtsep") s.txtsep = option_int("String \"txtsep\" must be followed by text separation");
    else if (w == "legup") s.legup = option_int("String \"legup\" must be followed by pixel value");
    else if (w == "legshift") s.legshift = option_int("String \"legshift\" must be followed by pixel value");
    else if (w == "shift") s.shift = option_int("String \"shift\" must be followed by pixel value");
    else if (w == "rotate") s.rotate = 1;
    else if (w == "xysave") {
      read_token();  // the array's name: coordinates go to it when macros exist
      keep_open = true;
    } else if (w == "extra") {
      const int x = read_int();
      if (!accept_char(',')) error_exit("Syntax error in \"ttag&+\": use \"extra x,y\"");
      const int y = read_int();
      s.extra_x = x;
      s.extra_y = y;
    } else if (w == "caption") {
      s.caption = read_rest_of_command();
      break;
    } else {
      error_exitf("Unrecognized option for SVG output: %s", w.c_str());
    }
    if (s.blength < 1 || s.bheight < 1 || s.tfontsize < 1 || s.bfontsize < 1 || s.thickness < 0)
      error_exit("Sizes for SVG output must be positive");
  }
  const int ntax = tree_store.ntax;
  std::vector<std::string> names(ntax);
  for (int t = 0; t < ntax; ++t) names[t] = trees::display_name(t);
  std::vector<std::string> tags = tree_store.tags;
  tags.resize(2 * ntax - 1);
  SvgLayout layout;
  const std::string doc = svg_document(tree_store.tag_tree.data(), ntax, tags, names, s, &layout, !keep_open);
  if (d.stream) {
    std::fputs("</g>\n</svg>\n", d.stream);
    std::fclose(d.stream);
    d.stream = nullptr;
  }
  std::FILE* f = open_user_file(name, "w");
  if (!f) error_exit({"Cannot open file", name});
  std::fputs(doc.c_str(), f);
  if (keep_open) {
    d.stream = f;
    d.name = name;
    d.layout = layout;
    out_text({"Tree diagram written to ", name, " (file left open for additions)\n"});
  } else {
    std::fclose(f);
    out_text({"Tree diagram written to ", name, "\n"});
  }
}

}  // namespace qax::graphics
