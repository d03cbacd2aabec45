// Time of the configuration scanner, another thread alive: from opening a file to closing it.
#include "com/ymlib3/ym_config"

#include <ini.h>
#include <iniparser/iniparser.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>

#include "bench/other_thread.h"
#include "bench/text.h"
#include "bench/versus.h"
#include "com/ymlib3/ym_string"
#include "tests/support/scratch.h"

namespace {

other_thread g_other;

using ym_string = ym::string_<>;

// Text that all parsers read alike: sections, keys, values and comments, some spaces, no long lines.
std::string configuration(size_t bytes) {
  std::mt19937 random(seed);
  std::string text = "# made for measuring\n[first]\n";
  for (int line = 0; text.size() < bytes; ++line) {
    const std::string number = std::to_string(line);
    if (line % 20 == 19) text += "\n[section" + number + "]\n";
    if (line % 10 == 9) text += "; a comment of the usual length\n";
    text += "key" + number + " = " + letters(1 + random() % 60) + "\n";
  }
  return text;
}

// Adds the first characters of a pair to the sum.
uint64_t mix(const char* section, const char* key, const char* value) {
  return static_cast<uint64_t>(section[0]) + 3 * static_cast<uint64_t>(key[0]) + 5 * static_cast<uint64_t>(value[0]);
}

uint64_t scan(const char* path) {
  ym::rstream_file file;
  if (!file.open(path)) return 0;
  uint64_t sum = 0;
  const auto call = [&sum](const ym_string& section, const ym_string& key, const ym_string& value) {
    if (key.size() != 0) sum += mix(section.c_str(), key.c_str(), value.c_str());
    return 0;
  };
  ym::config<ym_string>().scan(&file, call, 0);
  return sum;
}

uint64_t scan_inih(const char* path) {
  uint64_t sum = 0;
  const ini_handler call = [](void* user, const char* section, const char* key, const char* value) {
    *static_cast<uint64_t*>(user) += mix(section, key, value);
    return 1;
  };
  ini_parse(path, call, &sum);
  return sum;
}

// The library stores all pairs in lower case, with the section before the key.
uint64_t scan_iniparser(const char* path) {
  dictionary* d = iniparser_load(path);
  uint64_t sum = 0;
  for (int i = 0; i < d->size; ++i) {
    if (!d->key[i] || !d->val[i]) continue;
    sum += mix(d->key[i], std::strchr(d->key[i], ':') + 1, d->val[i]);
  }
  iniparser_freedict(d);
  return sum;
}

// The same calls of the C library, ignoring the bytes.
uint64_t fetch_all(const char* path) {
  std::FILE* file = std::fopen(path, "rt");
  for (int i = 0; i < 3; ++i) std::fgetc(file);
  std::fseek(file, 0, SEEK_SET);
  uint64_t n = 0;
  while (std::fgetc(file) != EOF) ++n;
  std::fclose(file);
  return n;
}

using parser = uint64_t (*)(const char* path);

work repeat(int times, const std::string& path, parser parse) {
  return [=] {
    uint64_t sum = 0;
    for (int i = 0; i < times; ++i) sum += parse(path.c_str());
    return sum;
  };
}

void enter_file(const std::string& what, const std::string& path, int times, const char* name, parser rival) {
  versus("configuration, " + what, name, times, repeat(times, path, scan), repeat(times, path, rival));
}

// fetch_all finds no pairs; its checksum is the number of bytes.
void enter_fetch(const std::string& what, const std::string& path, int times) {
  const uint64_t sum = fetch_all(path.c_str());
  if (sum != std::filesystem::file_size(path)) throw std::runtime_error("fetch_all does not read the whole file");
  const work ours = repeat(times, path, scan);
  versus(
      "configuration, " + what, "one fgetc per byte", times,
      [=] { return ours() != 0 ? sum * static_cast<unsigned>(times) : 0; }, repeat(times, path, fetch_all));
}

}  // namespace

void enter() {
  static const scratch dir;  // must exist until the benchmarks have run
  const std::string large = dir.file(configuration(10'000'000), "large.conf");
  const std::string small = dir.file(configuration(320), "small.conf");
  enter_file("10 MB", large, 1, "inih", scan_inih);
  enter_fetch("10 MB", large, 1);
  enter_file("10 lines", small, 10, "inih", scan_inih);
  enter_file("10 lines", small, 10, "iniparser", scan_iniparser);
  enter_fetch("10 lines", small, 10);
}
