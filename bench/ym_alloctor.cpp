// Time of the pools, another thread alive: pairs of allocation and release, and batches.
#include "com/ymlib3/ym_alloctor"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/heaps.h"
#include "bench/other_thread.h"
#include "bench/text.h"
#include "bench/versus.h"

namespace {

other_thread g_other;

using sizes = std::vector<size_t>;

sizes class_sizes() {
  sizes all;
  const ym::allocator* a = get_ym_allocator();
  for (int i = 0; i < a->_classes; ++i) all.push_back(a->_class[i]->_block_size);
  return all;
}

// Writes and reads the block.
void mark(void* p, uint64_t with) { std::memcpy(p, &with, sizeof with); }
uint64_t read_mark(const void* p) {
  uint64_t with;
  std::memcpy(&with, p, sizeof with);
  return with;
}

// ---------------------------------------------------------------- pairs

uint64_t take_and_give(const heap& h, const sizes& requests) {
  uint64_t sum = 0;
  for (const size_t n : requests) {
    void* p = h.take(n);
    mark(p, n);
    sum += read_mark(p);
    h.give(p);
  }
  return sum;
}

void pairs(const std::string& path, const sizes& requests, const std::vector<heap>& rivals) {
  const heap ours = the_pools();
  for (const heap& rival : rivals) {
    versus(
        path, rival.name, static_cast<int>(requests.size()), [=] { return take_and_give(ours, requests); },
        [=] { return take_and_give(rival, requests); });
  }
}

// Any size of class `i`.
size_t within(const sizes& classes, size_t i, std::mt19937& random) {
  const size_t below = i == 0 ? 7 : classes[i - 1];
  return below + 1 + random() % (classes[i] - below);
}

void random_pairs(const sizes& classes, size_t count, const std::vector<heap>& rivals) {
  std::mt19937 random(seed);
  sizes all(count);
  for (size_t& n : all) n = within(classes, random() % classes.size(), random);
  pairs("pool pair, random sizes of all classes", all, rivals);
}

void enter_pairs(const std::vector<heap>& rivals) {
  const sizes classes = class_sizes();
  for (size_t i = 0; i < classes.size(); ++i) {
    const std::string size = std::to_string(classes[i]);
    const size_t count = classes[i] < 1048576 ? 1000 : 50;
    pairs("pool pair, " + size, sizes(count, classes[i]), rivals);
    std::mt19937 random(seed);
    sizes any(count);
    for (size_t& n : any) n = within(classes, i, random);
    pairs("pool pair, random sizes up to " + size, any, rivals);
  }
  random_pairs(classes, 1000, rivals);
}

// ---------------------------------------------------------------- batches

constexpr size_t batch = 1000;

enum class order { lifo, fifo, random };

std::vector<size_t> sequence(order o) {
  std::vector<size_t> s(batch);
  std::iota(s.begin(), s.end(), 0);
  if (o == order::lifo) std::reverse(s.begin(), s.end());
  if (o == order::random) std::shuffle(s.begin(), s.end(), std::mt19937(seed));
  return s;
}

uint64_t take_all_and_give_all(const heap& h, size_t n, const std::vector<size_t>& giving) {
  void* blocks[batch];
  for (size_t i = 0; i < batch; ++i) {
    blocks[i] = h.take(n);
    mark(blocks[i], i);
  }
  uint64_t sum = 0;
  for (const size_t i : giving) {
    sum += read_mark(blocks[i]) * i;
    h.give(blocks[i]);
  }
  return sum;
}

void enter_batches(size_t n, const std::string& label, order o, const std::vector<heap>& rivals) {
  const std::vector<size_t> giving = sequence(o);
  const heap ours = the_pools();
  for (const heap& rival : rivals) {
    versus(
        "pool batch of 1000, " + label, rival.name, batch, [=] { return take_all_and_give_all(ours, n, giving); },
        [=] { return take_all_and_give_all(rival, n, giving); });
  }
}

}  // namespace

void enter() {
  std::vector<heap> rivals = {c_library()};
#ifndef UNTUNED
  const std::vector<heap> more = thread_caching();
  rivals.insert(rivals.end(), more.begin(), more.end());
#endif
  const std::pair<order, const char*> orders[] = {
      {order::lifo, "LIFO"}, {order::fifo, "FIFO"}, {order::random, "random"}};
  for (const size_t n : {64, 1024, 8192})
    for (const auto& [o, name] : orders) enter_batches(n, std::to_string(n) + " " + name, o, rivals);
#ifndef UNTUNED
  rivals.insert(rivals.begin(), pool_limit());
#endif
  enter_pairs(rivals);
}
