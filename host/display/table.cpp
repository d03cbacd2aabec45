#include "host/display/table.h"

#include <algorithm>
#include <array>
#include <cwchar>

#include "host/display/text.h"

namespace {

struct glyph {
  std::string text;
  size_t bytes;  // of the text that it shows
  size_t columns;
};

// Bytes that are not a character, or not one that the terminal can show, become one question mark each.
glyph first_glyph(std::string_view text) {
  wchar_t c = 0;
  std::mbstate_t state{};
  const size_t n = std::mbrtowc(&c, text.data(), text.size(), &state);
  const bool is_character = n > 0 && n <= text.size();
  const int columns = is_character ? wcwidth(c) : -1;
  if (columns < 0) return {"?", 1, 1};
  return {std::string(text.substr(0, n)), n, static_cast<size_t>(columns)};
}

struct shown {
  std::string text;
  size_t columns = 0;
};

shown show(std::string_view text) {
  shown s;
  const std::string plain = printable(text);
  for (std::string_view rest = plain; !rest.empty();) {
    const glyph g = first_glyph(rest);
    s.text += g.text;
    s.columns += g.columns;
    rest.remove_prefix(g.bytes);
  }
  return s;
}

shown show(std::string_view text, size_t width) {
  shown whole = show(text);
  if (whole.columns <= width) return whole;
  shown s;
  for (std::string_view rest = whole.text; width > 0;) {
    const glyph g = first_glyph(rest);
    if (s.columns + g.columns >= width) break;
    s.text += g.text;
    s.columns += g.columns;
    rest.remove_prefix(g.bytes);
  }
  if (width > 0) s.text += '>', ++s.columns;
  return s;
}

constexpr size_t column_count = 8;
using cells = std::array<shown, column_count>;

struct column {
  const char* heading;
  bool to_the_right;
  size_t share;  // takes at most this part of the width; 0 for what it needs
};

constexpr std::array<column, column_count> columns = {{{"INSTANCE", false, 4},
                                                       {"HANDLE", true, 0},
                                                       {"RUNS", false, 0},
                                                       {"AGE", true, 0},
                                                       {"PUBS", true, 0},
                                                       {"ERRORS", true, 0},
                                                       {"HOST NAME", false, 4},
                                                       {"VALUE", false, 0}}};

cells headings() {
  cells c;
  for (size_t k = 0; k < column_count; ++k) c[k] = show(columns[k].heading);
  return c;
}

cells cells_of(const row& r, size_t width) {
  const std::string age = r.age ? std::to_string(r.age->count()) + 's' : "-";
  const std::array<std::string, column_count> texts = {
      r.instance, std::to_string(r.handle),       r.runs ? "yes" : "no",
      age,        std::to_string(r.published),    std::to_string(r.errors),
      r.host,     r.value.empty() ? "-" : r.value};
  cells c;
  for (size_t k = 0; k < column_count; ++k) {
    const size_t share = columns[k].share;
    c[k] = show(texts[k], share == 0 || width == unlimited ? unlimited : std::max<size_t>(width / share, 10));
  }
  return c;
}

std::array<size_t, column_count> widths_of(const std::vector<cells>& lines) {
  std::array<size_t, column_count> widths{};
  for (const cells& c : lines)
    for (size_t k = 0; k < column_count; ++k) widths[k] = std::max(widths[k], c[k].columns);
  return widths;
}

std::string aligned(const cells& c, const std::array<size_t, column_count>& widths) {
  std::string line;
  for (size_t k = 0; k < column_count; ++k) {
    const std::string padding(widths[k] - c[k].columns, ' ');
    if (k > 0) line += "  ";
    line += columns[k].to_the_right ? padding + c[k].text : c[k].text + padding;
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

}  // namespace

std::string fitted(std::string_view text, size_t width) { return show(text, width).text; }

std::vector<std::string> table(const std::vector<row>& rows, size_t width) {
  std::vector<cells> all = {headings()};
  for (const row& r : rows) all.push_back(cells_of(r, width));
  const auto widths = widths_of(all);
  std::vector<std::string> lines;
  lines.reserve(all.size());
  for (const cells& c : all) lines.push_back(fitted(aligned(c, widths), width));
  return lines;
}
