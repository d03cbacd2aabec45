// Time of the string: filled by character and by block, and assigned to.
#include "com/ymlib3/ym_string"

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench/text.h"
#include "bench/versus.h"

namespace {

const std::string g_text = letters(1 << 20);

uint64_t sample_of(const ym::string_<>& s) { return sample(s.c_str(), s.size()); }
uint64_t sample_of(const std::string& s) { return sample(s.c_str(), s.size()); }

// A run takes about as long for every `n`.
int repeats(size_t n) { return static_cast<int>(20'000 / n + 1); }

template <class STR>
uint64_t push_all(size_t n) {
  uint64_t sum = 0;
  for (int i = repeats(n); i != 0; --i) {
    STR s;
    for (const char *p = g_text.data(), *end = p + n; p != end; ++p) s.push_back(*p);
    sum += sample_of(s);
  }
  return sum;
}

template <class STR>
uint64_t append_all(size_t block, size_t times) {
  uint64_t sum = 0;
  for (int i = repeats(block * times); i != 0; --i) {
    STR s;
    for (size_t k = 0; k < times; ++k) s.append(g_text.data() + k, block);
    sum += sample_of(s);
  }
  return sum;
}

template <class STR>
uint64_t assign_again(STR& used, const std::string& text) {
  uint64_t sum = 0;
  for (int i = 0; i < 1000; ++i) {
    used = text.c_str();
    benchmark::DoNotOptimize(used);
    sum += used.size();
  }
  return sum + sample_of(used);
}

void enter_push(size_t n) {
  versus("string push_back to " + std::to_string(n), "std::string", repeats(n), [=] { return push_all<ym::string_<>>(n); },
         [=] { return push_all<std::string>(n); });
}

void enter_append(const std::string& label, size_t block, size_t times) {
  versus("string append " + label, "std::string", repeats(block * times),
         [=] { return append_all<ym::string_<>>(block, times); },
         [=] { return append_all<std::string>(block, times); });
}

void enter_assign(size_t n) {
  const std::string text = letters(n);
  const auto ours = std::make_shared<ym::string_<>>();
  const auto theirs = std::make_shared<std::string>();
  *ours = letters(100).c_str();
  *theirs = letters(100).c_str();
  versus("string assign " + std::to_string(n), "std::string", 1000, [=] { return assign_again(*ours, text); },
         [=] { return assign_again(*theirs, text); });
}

}  // namespace

void enter() {
  for (const size_t n : {1, 7, 10, 15, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10'000, 100'000, 1'000'000}) enter_push(n);
  enter_append("256 x 16", 16, 256);
  enter_append("64 x 1024", 1024, 64);
  for (const size_t n : {1, 12, 60, 90}) enter_assign(n);
}
