// Sequences of requests and releases for the pools and the self heap, compared with a model of every slot.
//   input: steps, each: what | bits | size | its numbers
#include <cstring>
#include <deque>
#include <new>
#include <vector>

#include "com/ymlib3/ym_alloctor"
#include "tests/fuzz/pools_model.h"
#include "tests/fuzz/reader.h"
#include "tests/fuzz/target.h"
#include "tests/support/fake_pages.h"
#include "tests/support/size_classes.h"

namespace {

using fuzz::require;

constexpr size_t most_bytes = size_t{1} << 29;  // alive at a time
constexpr size_t most_requests = 20000;
constexpr size_t own_slots = 33;  // of the self heap: thirty pools, three chunk descriptors

struct block {
  void* p;
  size_t granted;
  size_t pool;  // `size_classes::count` for a large block
  fuzz::pool_model::block at;
  uint8_t stamp;
};

struct slot {
  void* p;
  fuzz::heap_model::slot at;
};

const void* word_before(const void* p, size_t n) {
  const void* word;
  std::memcpy(&word, static_cast<const char*>(p) - n, sizeof word);
  return word;
}

// A block's contents: its stamp at both ends. Filling the rest would only touch memory.
constexpr size_t painted = 16;

void paint(const block& b) {
  const size_t n = b.granted < painted ? b.granted : painted;
  std::memset(b.p, b.stamp, n);
  std::memset(static_cast<char*>(b.p) + b.granted - n, b.stamp, n);
}
void check_paint(const block& b) {
  const size_t n = b.granted < painted ? b.granted : painted;
  const auto* p = static_cast<const uint8_t*>(b.p);
  const auto same = [&](uint8_t byte) { return byte == b.stamp; };
  require(std::all_of(p, p + n, same) && std::all_of(p + b.granted - n, p + b.granted, same),
          "a block is written only by its owner");
}

// ---------------------------------------------------------------- the allocator and its model

class trial {
 public:
  trial() : _heap(build(), own_slots) {
    for (const size_classes::row& s : size_classes::all) _pools.emplace_back(s);
    for (size_t i = 0; i < 3; ++i) _pools[i].start_with(pools()._class[i]->_head);
    require(pools()._classes == 30, "there are thirty classes");
    for (size_t i = 0; i < size_classes::count; ++i) check_pool(i);
  }
  ~trial() {
    for (size_t i = 0; i < size_classes::count; ++i) check_pool(i);
    for (const block& b : _blocks) check_paint(b);
    while (_large != 0) give(large_at());
    // Live blocks of the pools are unmapped with their chunks.
    require(destroy() == _others, "all pages are unmapped");
    new (&g_ym_allocator) ym_allocator_;
  }
  trial(const trial&) = delete;
  trial& operator=(const trial&) = delete;

  void take(size_t n, bool refuse, bool ask);
  void take_many(size_t n, size_t times);
  void give(size_t i);
  void give_many(size_t first, size_t times, size_t stride);
  void take_slot(size_t n, bool refuse);
  void take_slots(size_t n, size_t times);
  void give_slot(size_t i);
  void give_slots(size_t first, size_t times, size_t stride);
  void check(size_t pool) const;

  size_t blocks() const { return _blocks.size(); }
  size_t slots() const { return _slots.size(); }

 private:
  size_t _others = destroy();  // mappings of the rest of the process
  fuzz::heap_model _heap;
  std::vector<fuzz::pool_model> _pools;
  std::deque<block> _blocks;
  std::vector<slot> _slots;
  size_t _large = 0, _bytes = 0, _requests = 0;
  uint8_t _stamp = 0;

  static ym::allocator& pools() { return *get_ym_allocator(); }

  size_t mappings() const { return fake_pages::live().size() - _others; }

  /// Destroys the allocator and returns the number of mappings that remain.
  static size_t destroy() {
    g_ym_allocator.~ym_allocator_();
    return fake_pages::live().size();
  }
  /// Constructs the allocator and returns the address of the self heap's chunk.
  static uintptr_t build() {
    new (&g_ym_allocator) ym_allocator_;
    return reinterpret_cast<uintptr_t>(get_ym_alloctor_self()->_chunks);
  }

  size_t large_at() const {
    size_t i = 0;
    while (_blocks[i].pool != size_classes::count) ++i;
    return i;
  }

  void check_pool(size_t i) const {
    const auto& pool = *pools()._class[i];
    require(pool.is_valid(), "the pool is valid");
    require(static_cast<size_t>(pool._chunks) == _pools[i].chunks(), "the pool has the chunks of the model");
    require(pool._free == _pools[i].free(), "the pool's free blocks are counted");
  }

  void take_large(void* p, size_t n, size_t got, bool refused) {
    if (refused) return require(reinterpret_cast<uintptr_t>(p) == 16, "a refused large block is the address 16");
    const uintptr_t mapping = reinterpret_cast<uintptr_t>(p) - 16;
    require(mapping != 0 && mapping == size_classes::whole_pages(mapping), "a large block begins its mapping");
    require(word_before(p, 8) == nullptr, "the word before a large block is zero");
    require(reinterpret_cast<uintptr_t>(word_before(p, 16)) == size_classes::whole_pages(n + 16),
            "and its mapping's length");
    ++_large;
    add({p, got, size_classes::count, {}, ++_stamp});
  }

  void take_pooled(void* p, size_t i, bool refused) {
    const auto at = _pools[i].take(_heap, refused);
    require(at.has_value() == (p != nullptr), "null means that there is no memory");
    if (!at || !p) return;
    _pools[i].found(*at, p, word_before(p, 8));
    add({p, size_classes::all[i].size, i, *at, ++_stamp});
  }

  void add(const block& b) {
    require(ym::allocator::usable_(b.p) == b.granted, "usable_ returns the granted size");
    paint(b);
    _blocks.push_back(b);
    _bytes += b.granted;
  }
};

void trial::take(size_t n, bool refuse, bool ask) {
  if (_bytes + n > most_bytes || _requests++ >= most_requests) return;
  constexpr size_t unwritten = 0x5A5A5A5A;
  size_t got = unwritten;
  // A refused chunk descriptor ends the process.
  const fake_pages::refusal refusal(refuse && _heap.free() != 0);
  void* p = pools().malloc_(n, ask ? &got : nullptr);
  const bool refused = refusal.has_refused();
  require(got == (ask && !refused ? size_classes::granted(n) : unwritten),
          "the granted size is stored if the request succeeds");
  const size_t i = size_classes::index_of(n);
  if (i < size_classes::count) return take_pooled(p, i, refused);
  take_large(p, n, size_classes::granted(n), refused);
}

void trial::take_many(size_t n, size_t times) {
  for (; times != 0; --times) take(n, false, true);
}

void trial::give(size_t i) {
  const block b = _blocks[i];
  check_paint(b);
  _blocks[i] = _blocks.back();
  _blocks.pop_back();
  _bytes -= b.granted;
  { pools().free_(b.p); }
  if (b.pool == size_classes::count) {
    --_large;
  } else {
    _pools[b.pool].give(_heap, b.at);
  }
}

void trial::give_many(size_t first, size_t times, size_t stride) {
  for (size_t i = first; times != 0 && !_blocks.empty(); --times, i += stride) give(i % _blocks.size());
}

void trial::take_slot(size_t n, bool refuse) {
  if (_requests++ >= most_requests) return;
  const fake_pages::refusal refusal(refuse);
  void* p = ym::memheap_::operator new(n);
  const bool refused = refusal.has_refused();
  require((p != nullptr) == (n <= 56 && !refused), "a slot holds 56 bytes");
  if (!p) return;
  const slot s{p, _heap.take()};
  fuzz::heap_model::found(s.at, p);
  std::memset(p, ++_stamp, 56);
  _slots.push_back(s);
}

void trial::take_slots(size_t n, size_t times) {
  for (; times != 0; --times) take_slot(n, false);
}

void trial::give_slot(size_t i) {
  const slot s = _slots[i];
  _slots[i] = _slots.back();
  _slots.pop_back();
  ym::memheap_::operator delete(s.p);
  _heap.give(s.at);
}

void trial::give_slots(size_t first, size_t times, size_t stride) {
  for (size_t i = first; times != 0 && !_slots.empty(); --times, i += stride) give_slot(i % _slots.size());
}

void trial::check(size_t pool) const {
  const self_alloctor& self = *get_ym_alloctor_self();
  require(self.is_valid(), "the self heap is valid");
  require(self._free == _heap.free(), "its free slots are counted");
  if (pool < size_classes::count) check_pool(pool);
  require(pools()._large == _large, "large blocks are counted");
  size_t expected = _heap.chunks() + _large;
  for (const fuzz::pool_model& p : _pools) expected += p.chunks();
  require(mappings() == expected, "the mappings are those of the model");
}

// ---------------------------------------------------------------- steps

// A class's size plus or minus a few bytes, or any size.
size_t read_size(fuzz::reader& in) {
  const uint8_t i = in.byte();
  if (i < 0xE0) return size_classes::all[i % size_classes::count].size + in.byte() % 16 - 8;
  return static_cast<size_t>(in.number(3));
}

// Bursts of requests and releases of `n` bytes, chosen by `seed`: chunks fill and become empty alternately.
void churn(trial& s, size_t n, uint32_t seed, size_t bursts) {
  for (; bursts != 0; --bursts) {
    const uint32_t x = seed = seed * 1664525 + 1013904223;
    for (size_t times = x >> 27U; times != 0; --times) {
      if (x >> 26U & 1U) {
        s.take(n, false, true);
      } else if (s.blocks() != 0) {
        s.give((x / times) % s.blocks());
      }
    }
  }
}
void churn_slots(trial& s, uint32_t seed, size_t bursts) {
  for (; bursts != 0; --bursts) {
    const uint32_t x = seed = seed * 1664525 + 1013904223;
    for (size_t times = x >> 20U & 0x3FFU; times != 0; --times) {
      if (x >> 31U) {
        s.take_slot(56, false);
      } else if (s.slots() != 0) {
        s.give_slot((x / times) % s.slots());
      }
    }
  }
}

/// The pool that the step uses.
size_t step(trial& s, fuzz::reader& in) {
  const uint8_t what = in.byte();
  const uint8_t bits = in.byte();
  const size_t n = read_size(in);
  switch (what % 10) {
    case 0:
    case 1:
      s.take(n, (bits & 1U) != 0, (bits & 2U) != 0);
      break;
    case 2:
      s.take_many(n, in.number(2));
      break;
    case 3:
      if (s.blocks() != 0) s.give((n + bits) % s.blocks());
      break;
    case 4:
      s.give_many(n, in.number(2), bits % 16 - size_t{8});  // ascending, descending, or constant
      break;
    case 5:
      s.take_slots(n % 64, in.number(2));
      break;
    case 6:
      s.give_slots(n, in.number(2), bits % 16 - size_t{8});
      break;
    case 7:
      churn(s, n, bits, in.byte());
      break;
    case 8:
      churn_slots(s, bits, in.byte());
      break;
    default:
      s.take_slot(n % 64, (bits & 1U) != 0);
      ym::memheap_::operator delete(&s);  // an address outside all chunks
      ym_free(nullptr);
  }
  return size_classes::index_of(n);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::reader in(data, size);
  trial s;
  for (int steps = 0; !in.empty() && steps < 64; ++steps) s.check(step(s, in));
  return 0;
}
