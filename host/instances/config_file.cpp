#include "host/instances/config_file.h"

#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <functional>
#include <iterator>
#include <numeric>
#include <string_view>
#include <vector>

namespace {

constexpr off_t largest_file = off_t{1} << 20;
constexpr std::string_view hostname = "hostname";
constexpr size_t most_shown = 60;
constexpr size_t most_errors = 3;  // in a misspelt word

// Where the characters of a key are in the text.
using key = std::vector<size_t>;

// The key ends with the word hostname, which follows other words.
bool is_hidden(const std::string& text, const key& k) {
  if (k.size() <= hostname.size()) return false;
  const auto word = k.end() - static_cast<std::ptrdiff_t>(hostname.size());
  std::string end;
  std::transform(word, k.end(), std::back_inserter(end), [&](size_t at) { return text[at]; });
  return strcasecmp(end.c_str(), hostname.data()) == 0 && word[-1] + 1 != word[0];
}

std::string shown_line(const std::string& text, size_t at) {
  const size_t begin = text.find_last_of("\r\n", at) + 1;  // 0 in the first line
  std::string line = text.substr(begin, text.find_first_of("\r\n", at) - begin);
  line.erase(0, line.find_first_not_of(" \t"));
  line.erase(line.find_last_not_of(" \t") + 1);
  return line.size() > most_shown ? line.substr(0, most_shown) + "..." : line;
}

std::string describe(const std::string& text, size_t at, const char* what) {
  const auto number = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n');
  return "line " + std::to_string(number) + what + ": \"" + shown_line(text, at) + '"';
}

size_t end_of(const std::string& text, size_t at, const char* ends) {
  return std::min(text.find_first_of(ends, at), text.size());
}

// Reads as the driver does: a key has no spaces and no line feeds, and ends with an equals sign, a comment or a
// section, at `end`.
void for_each_key(const std::string& text, const std::function<void(const key& k, bool has_value, size_t end)>& f) {
  key k;
  for (size_t at = text.starts_with("\xef\xbb\xbf") ? 3 : 0; at < text.size(); ++at) {
    const char c = text[at];
    if (std::string_view(" \t\r\n").find(c) != std::string_view::npos) continue;
    if (std::string_view(";#[=").find(c) == std::string_view::npos) {
      k.push_back(at);
      continue;
    }
    f(k, c == '=', at);
    k.clear();
    at = end_of(text, at, c == '=' ? "\n" : c == '[' ? "]\r\n" : "\r\n");
  }
  f(k, false, text.size());
}

struct match {
  size_t errors;
  size_t at = std::string::npos;  // where it ends in the text
};

// The part of a key that is most like the word hostname: fewest characters are missing, added or replaced.
match best_match(const std::string& text, const key& k) {
  std::array<size_t, hostname.size()> errors{};  // with which the first 1, 2 ... characters of the word end here
  std::iota(errors.begin(), errors.end(), 1);
  match best{hostname.size()};
  for (const size_t at : k) {
    size_t diagonal = 0;
    size_t left = 0;
    auto e = errors.begin();
    for (const char c : hostname) {
      const size_t replaced = diagonal + (std::tolower(static_cast<unsigned char>(text[at])) != c);
      diagonal = *e;
      left = *e = std::min({replaced, *e + 1, left + 1});
      ++e;
    }
    if (errors.back() <= best.errors) best = {errors.back(), at};
  }
  return best;
}

std::string contents(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

// Opening the file, even without blocking, would wake the writer of a FIFO and may move a device.
std::string unreadable(const std::string& file) {
  struct stat s {};
  if (stat(file.c_str(), &s) != 0) return "";
  if (!S_ISREG(s.st_mode)) return file + ": not a regular file";
  if (s.st_size > largest_file) return file + ": larger than 1 MiB";
  return "";
}

std::string hidden_hostname(const std::string& file) {
  const std::string text = contents(file);
  std::string found;
  for_each_key(text, [&](const key& k, bool has_value, size_t /*end*/) {
    if (!found.empty() || !has_value || !is_hidden(text, k)) return;
    found = describe(text, k[0], " hides hostname") + "; begin comments with #";
  });
  return found;
}

std::string hostname_like_line(const std::string& file) {
  const std::string text = contents(file);
  match best{most_errors};
  for_each_key(text, [&](const key& k, bool /*has_value*/, size_t /*end*/) {
    match m = best_match(text, k);
    if (k.size() > hostname.size()) ++m.errors;  // the word itself is a better match than a part of a key
    if (m.errors <= best.errors) best = m;
  });
  return best.at == std::string::npos ? "" : describe(text, best.at, "");
}

std::string first_unused_line(const std::string& file) {
  const std::string text = contents(file);
  std::string found;
  for_each_key(text, [&](const key& k, bool has_value, size_t end) {
    if (found.empty() && (has_value || !k.empty())) found = describe(text, k.empty() ? end : k[0], " is not used");
  });
  return found;
}
