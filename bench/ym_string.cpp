// Time of the string: filled by character and by block, and assigned to.
#include "com/ymlib3/ym_string"

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench/limit_string.h"
#include "bench/text.h"
#include "bench/versus.h"

namespace {

constexpr int assignments = 1000;

const std::string g_text = letters(1 << 20);

template <class STR>
uint64_t sample_of(const STR& s) {
  return sample(s.c_str(), s.size());
}

// So many that a run takes about the same time for every `n`.
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
uint64_t assign_again(STR& used, const char* text) {
  uint64_t sum = 0;
  for (int i = 0; i < assignments; ++i) {
    used = text;
    benchmark::DoNotOptimize(used);
    sum += used.size();
  }
  return sum + sample_of(used);
}

void enter_push(size_t n) {
  const std::string path = "string push_back to " + std::to_string(n);
  const work ours = [=] { return push_all<ym::string_<>>(n); };
  versus(path, "std::string", repeats(n), ours, [=] { return push_all<std::string>(n); });
  versus(path, "limit", repeats(n), ours, [=] { return push_all<limit_string>(n); });
}

void enter_append(size_t block, size_t times) {
  const std::string path = "string append " + std::to_string(times) + " x " + std::to_string(block);
  const int count = repeats(block * times);
  const work ours = [=] { return append_all<ym::string_<>>(block, times); };
  versus(path, "std::string", count, ours, [=] { return append_all<std::string>(block, times); });
  versus(path, "limit", count, ours, [=] { return append_all<limit_string>(block, times); });
}

// A string with the block of a longer text.
template <class STR>
work assign_to_used(const std::string& text) {
  const auto used = std::make_shared<STR>();
  assign_again(*used, letters(100).data());
  return [=] { return assign_again(*used, text.data()); };
}

void enter_assign(size_t n) {
  const std::string path = "string assign " + std::to_string(n), text = letters(n);
  const work ours = assign_to_used<ym::string_<>>(text);
  versus(path, "std::string", assignments, ours, assign_to_used<std::string>(text));
  versus(path, "limit", assignments, ours, assign_to_used<limit_string>(text));
}

}  // namespace

void enter() {
  for (const size_t n : {1, 7, 10, 15, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10'000, 100'000, 1'000'000})
    enter_push(n);
  enter_append(16, 256);
  enter_append(1024, 64);
  for (const size_t n : {1, 12, 60, 90}) enter_assign(n);
}
