// Every short sequence of pool requests, with each mapping refused in turn: the addresses, the granted sizes, the
// mappings and the whole bookkeeping are those of the model.
#include "com/ymlib3/ym_alloctor"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"
#include "tests/support/pools_model.h"
#include "tests/support/size_classes.h"
#include "tests/support/small_inputs.h"

namespace {

using pools_model::word;

word address(const void* p) { return reinterpret_cast<word>(p); }
void* pointer(word address) { return reinterpret_cast<void*>(address); }

// ---------------------------------------------------------------- operations

/// One request: a block of `size` bytes, or the release of the block that request number `freed` got.
struct op {
  static constexpr size_t none = ~size_t{0};
  size_t size = 0;
  size_t freed = none;
};
using program = std::vector<op>;

op take(size_t size) { return {size}; }
op give(size_t request) { return {0, request}; }

std::string text_of(const program& p) {
  std::string s;
  for (const op& o : p)
    s += o.freed == op::none ? "take " + std::to_string(o.size) + ", " : "give " + std::to_string(o.freed) + ", ";
  return s;
}

// ---------------------------------------------------------------- product and model

/// The product's mappings, and those of the rest of the process.
std::map<void*, size_t> foreign_mappings;

/// An allocator built for one program, and its model. The model gets the addresses of the product's mappings.
class both {
 public:
  /// `refused`: the mapping of the construction that is refused; 0 for none.
  explicit both(long page, int refused = 0) : _model(build(page, refused)) { fake_pages::refuse(0); }

  ~both() {
    for (const block& b : _blocks)
      if (b.is_large) ym_free(pointer(b.address));
  }
  both(const both&) = delete;
  both& operator=(const both&) = delete;

  void run(const op& o) {
    if (o.freed == op::none)
      request(o.size);
    else
      release(o.freed);
  }

  void take_slot() {
    _slots.push_back(address(ym::memheap_::operator new(56)));
    check(_slots.back() == _model.take_slot(), "address of a slot");
  }

  /// Releases slot number `i` of take_slot(); null if that one has been released.
  void give_slot(size_t i) {
    ym::memheap_::operator delete(pointer(_slots[i]));
    _model.give_slot(_slots[i]);
    _slots[i] = 0;
  }

  /// Leaves the self heap with `left` free slots, so that a new chunk needs two mappings.
  void take_slots(size_t left) {
    while (_model.self().free > left) take_slot();
  }

  size_t slots() const { return _slots.size(); }

  /// Mappings requested since construction began.
  int requested() const { return _model.requested(); }

  /// What differs; empty if nothing does.
  const std::string& compare() {
    compare_self_heap();
    compare_pools();
    check(fake_pages::made() == _model.requested(), "number of requested mappings");
    std::map<word, word> live;
    for (const auto& [at, length] : fake_pages::live())
      if (!foreign_mappings.contains(at)) live[address(at)] = length;
    check(live == _model.mappings(), "mappings alive");
    for (const block& b : _blocks)
      check(!b.is_live || *static_cast<const word*>(pointer(b.address)) == b.mark, "content");
    return _difference;
  }

 private:
  struct block {
    word address = 0;
    bool is_live = false, is_large = false;
    word mark = 0;  // written into the block
  };

  pools_model::allocator build(long page, int refused) {
    g_ym_allocator.~ym_allocator_();
    foreign_mappings = fake_pages::live();
    fake_pages::page_size(page);
    fake_pages::reset();
    fake_pages::refuse(refused);
    new (&g_ym_allocator) ym_allocator_;
    return {static_cast<word>(page), [this](word) { return next_mapping(); }};
  }

  /// The product's mappings in their order: it serves each request before the model does.
  word next_mapping() {
    if (_passed_on < fake_pages::made()) return address(fake_pages::address_of(++_passed_on));
    check(false, "a mapping that the model makes");
    return _invented += 1 << 30;
  }

  // ---- requests

  void request(size_t n) {
    constexpr size_t unwritten = 0x5a5a5a5a;
    size_t granted = unwritten;
    block b;
    b.address = address(get_ym_allocator()->malloc_(n, &granted));
    const pools_model::result expected = _model.malloc(n, unwritten);
    check(b.address == expected.block, "address of a block");
    check(granted == expected.granted, "granted size");
    b.is_live = b.address == expected.block && b.address > 16;
    b.is_large = b.is_live && _model.is_large(b.address);
    if (b.is_live) {
      compare_header(b, granted);
      b.mark = 0x1111111111111111 * (_blocks.size() + 1);
      *static_cast<word*>(pointer(b.address)) = b.mark;
    }
    _blocks.push_back(b);
  }

  void compare_header(const block& b, size_t granted) {
    const word header = pools::read<word>(pointer(b.address - 8));
    check(header == _model.header_of(b.address), "the word before a block");
    if (b.is_large) check(pools::read<word>(pointer(b.address - 16)) == granted + 16, "length of a large block");
  }

  /// A refused request got null, whose release does nothing, or the address 16, which is never released.
  void release(size_t number) {
    size_t seen = 0;
    for (block& b : _blocks) {
      if (seen++ != number) continue;
      if (b.address == 16) return;
      if (number % 2 == 0)
        ym_free(pointer(b.address));
      else
        get_ym_allocator()->free_(pointer(b.address));
      _model.free(b.address);
      b = {};
    }
  }

  // ---- comparison

  void check(bool holds, const char* what) {
    if (!holds && _difference.empty()) _difference = what;
  }

  /// A list in the product's memory, compared with the model's from the latest element back.
  void compare_list(const char* head, const std::vector<word>& expected, const char* what) {
    for (size_t i = expected.size(); i-- > 0;) {
      if (address(head) != expected[i]) return check(false, what);
      head = pools::read<const char*>(head);
    }
    check(!head, what);
  }

  void compare_self_heap() {
    const pools_model::self_heap& expected = _model.self();
    const pools::heap actual = pools::self();
    check(actual.chunk_size == expected.chunk_size && actual.slot_request == expected.slot_request,
          "sizes of the self heap");
    check(actual.free == expected.free, "free slots of the self heap");
    const char* at = actual.chunks;
    for (const pools_model::heap_chunk& c : expected.chunks) {
      if (address(at) != c.address) return check(false, "chunk list of the self heap");
      const auto slots = pools::read<pools::slots>(at);
      check(slots.length == c.length && slots.slot_size == c.slot_size && slots.free == c.free &&
                slots.count == c.count && slots.bump == c.bump,
            "counts of a chunk of the self heap");
      compare_list(slots.freed, c.freed, "freed slots");
      at = slots.next;
    }
    check(!at, "chunk list of the self heap");
  }

  void compare_pools() {
    const pools::table t = pools::all();
    check(static_cast<size_t>(t.classes) == _model.pools().size() && t.large == _model.large(),
          "counts of the allocator");
    if (!_difference.empty()) return;
    for (size_t i = 0; i < 40; ++i) {
      if (i >= _model.pools().size())
        check(!t.pool[i], "an unused class");
      else if (address(t.pool[i]) != _model.pools()[i].address)
        check(false, "address of a pool");
      else
        compare_pool(pools::read<pools::pool>(t.pool[i]), _model.pools()[i]);
    }
  }

  void compare_pool(const pools::pool& actual, const pools_model::pool& expected) {
    check(actual.chunks == static_cast<int32_t>(expected.chunks.size()), "chunk count of a pool");
    check(actual.free == expected.free, "free count of a pool");
    check(actual.block_size == expected.block_size && actual.blocks == expected.blocks, "sizes of a pool");
    const char* at = actual.head;
    for (const pools_model::chunk& c : expected.chunks) {
      if (address(at) != c.address) return check(false, "chunk list of a pool");
      const auto chunk = pools::read<pools::chunk>(at);
      check(chunk.free == c.free && chunk.count == c.count && chunk.block_size == c.block_size && chunk.bump == c.bump,
            "counts of a chunk");
      check(chunk.length == c.length && address(chunk.mapping) == c.mapping, "mapping of a chunk");
      check(address(chunk.owner) == expected.address, "owner of a chunk");
      compare_list(chunk.freed, c.freed, "freed blocks");
      at = chunk.next;
    }
    check(!at, "chunk list of a pool");
  }

  // Declared before the model, whose constructor requests mappings.
  std::string _difference;
  int _passed_on = 0;  // mappings of the product that the model has
  word _invented = 1;
  pools_model::allocator _model;
  std::vector<block> _blocks;
  std::vector<word> _slots;
};

// ---------------------------------------------------------------- judging

/// Where the sequences of a group begin, and what they consist of.
struct scenario {
  const char* group;
  std::vector<size_t> sizes;  // requested by the sequences
  size_t longest;
  program before = {};             // run first
  std::vector<size_t> given = {};  // requests of `before` that the sequences may release
  long page = 4096;
};

class judge {
 public:
  explicit judge(scenario s) : _s(std::move(s)), _longest(small_inputs::longest(_s.longest)) {}

  void all() {
    extend({}, _s.given);
    small_inputs::report(_s.group, _judged);
  }

 private:
  scenario _s;
  size_t _longest;
  uint64_t _judged = 0;
  bool _agrees = true;

  /// Judges a program and all that continue it. `live`: the requests whose blocks it may release.
  void extend(const program& p, const std::vector<size_t>& live) {
    each_mapping_refused(p);
    if (!_agrees || p.size() == _longest) return;
    program longer = p;
    longer.emplace_back();
    for (const size_t size : _s.sizes) {
      longer.back() = take(size);
      std::vector<size_t> more = live;
      more.push_back(_s.before.size() + p.size());
      extend(longer, more);
    }
    for (size_t i = 0; i < live.size(); ++i) {
      longer.back() = give(live[i]);
      std::vector<size_t> fewer = live;
      fewer.erase(fewer.begin() + static_cast<long>(i));
      extend(longer, fewer);
    }
  }

  /// Judges a program without a refusal, then with each of its mappings refused.
  void each_mapping_refused(const program& p) {
    const int mappings = run(p, 0);
    for (int refused = 1; _agrees && refused <= mappings; ++refused) run(p, refused);
  }

  /// Returns the number of mappings that the last part, `p`, requests.
  int run(const program& p, int refused) {
    ++_judged;
    both pair(_s.page);
    for (const op& o : _s.before) pair.run(o);
    const int before = pair.requested();
    fake_pages::refuse(refused);
    for (const op& o : p) pair.run(o);
    const std::string& difference = pair.compare();
    if (difference.empty()) return pair.requested() - before;
    _agrees = false;
    ADD_FAILURE() << _s.group << ": " << difference << " after " << text_of(p) << "mapping " << refused << " refused";
    return 0;
  }
};

/// Mappings are reused: their bytes are those of earlier sequences, so nothing can rely on zeroed pages.
class pools_small_inputs : public testing::Test {
 protected:
  static void SetUpTestSuite() { fake_pages::reuse(true); }
  static void TearDownTestSuite() {
    pools::rebuild();
    fake_pages::reuse(false);
  }
};

constexpr size_t mebibyte = 1 << 20;  // a class whose chunks hold two blocks each
constexpr size_t largest = 4 << 20;

/// `n` requests of `size` bytes, then the release of those that `given` names.
program prepared(size_t size, size_t n, const std::vector<size_t>& given) {
  program p(n, take(size));
  for (const size_t number : given) p.push_back(give(number));
  return p;
}

// ---------------------------------------------------------------- sequences

// One class that has its first chunk, one that does not, one with two blocks in each chunk, and large blocks.
TEST_F(pools_small_inputs, Sequences_of_6_requests_are_served_as_by_the_model) {
  judge({"sequences of up to 6 pool requests, each mapping refused in turn", {16, 96, mebibyte, largest + 1}, 6}).all();
}

TEST_F(pools_small_inputs, Two_blocks_in_each_chunk_are_served_as_by_the_model) {
  judge({"sequences of up to 7 requests of a class with two blocks in each chunk", {mebibyte}, 7}).all();
}

// Four chunks and more: the release of a whole chunk may unmap it and others.
TEST_F(pools_small_inputs, Full_chunks_are_released_as_by_the_model) {
  judge({"sequences of up to 5 requests, four full chunks",
         {mebibyte},
         5,
         prepared(mebibyte, 8, {}),
         {0, 1, 2, 3, 4, 5, 6, 7}})
      .all();
}

TEST_F(pools_small_inputs, Chunks_with_one_block_each_are_released_as_by_the_model) {
  judge({"sequences of up to 6 requests, five chunks with one block in use",
         {mebibyte},
         6,
         prepared(mebibyte, 10, {0, 3, 4, 7, 8}),
         {1, 2, 5, 6, 9}})
      .all();
}

// The first chunk holds 16 blocks, the others 32.
TEST_F(pools_small_inputs, A_smaller_first_chunk_is_retained_as_by_the_model) {
  std::vector<size_t> given;
  const std::vector<size_t> last = {0, 16, 48, 80, 81};
  for (size_t i = 0; i < 112; ++i)
    if (std::find(last.begin(), last.end(), i) == last.end()) given.push_back(i);
  judge({"sequences of up to 4 requests, a smaller first chunk", {65536}, 4, prepared(65536, 112, given), last}).all();
}

TEST_F(pools_small_inputs, A_reserve_chunk_is_retained_as_by_the_model) {
  judge({"sequences of up to 5 requests, four chunks, the last one in reserve",
         {mebibyte},
         5,
         prepared(mebibyte, 8, {6, 7}),
         {0, 1, 2, 3, 4, 5}})
      .all();
}

TEST_F(pools_small_inputs, Other_page_sizes_round_as_in_the_model) {
  for (const long page : {16384, 65536})
    judge({"sequences of up to 3 requests, larger pages", {16, 96, 8192, mebibyte, largest + 1}, 3, {}, {}, page})
        .all();
}

// ---------------------------------------------------------------- classes

TEST_F(pools_small_inputs, Each_class_serves_the_sizes_of_the_model) {
  scenario s{"one request of each size next to a class, and its release", {0, 1}, 2};
  for (const size_classes::row& c : size_classes::all)
    for (const size_t size : {c.size - 1, c.size, c.size + 1}) s.sizes.push_back(size);
  // The length of the mapping is computed modulo 2^64.
  s.sizes.insert(s.sizes.end(), {~size_t{0}, ~size_t{0} - 14});
  judge(std::move(s)).all();
}

// ---------------------------------------------------------------- construction, self heap

// With one free slot left, a chunk needs a mapping of the self heap too. The result of a refused slot
// is not checked, so nothing is refused here.
TEST_F(pools_small_inputs, A_self_heap_without_free_slots_grows_as_in_the_model) {
  uint64_t judged = 0;
  for (const size_t free_slots : {0U, 1U, 2U}) {
    small_inputs::each(3, small_inputs::longest(4), [&](const auto& s) {
      both pair(4096);
      pair.take_slots(free_slots);
      size_t blocks = 0;
      for (const uint16_t symbol : s) {
        if (symbol < 2) pair.run(take(std::array<size_t, 2>{96, mebibyte}[symbol]));
        if (symbol < 2) ++blocks;
        if (symbol == 2 && blocks != 0) pair.run(give(--blocks));
      }
      ++judged;
      if (pair.compare().empty()) return true;
      ADD_FAILURE() << free_slots << " free slots: " << pair.compare();
      return false;
    });
  }
  small_inputs::report("sequences of up to 4 requests with few free slots in the self heap", judged);
}

/// Takes all slots of `chunks` chunks of the self heap.
void fill_self_heap(both& pair, size_t chunks) {
  pair.take_slots(0);
  for (size_t i = 1; i < chunks; ++i) {
    pair.take_slot();
    pair.take_slots(0);
  }
}

/// Leaves two chunks in the self heap: the first one with a free slot, the second one with two slots in use. Returns
/// the number of the first slot in use.
size_t empty_second_chunk(both& pair) {
  fill_self_heap(pair, 1);
  const size_t second = pair.slots();
  pair.take_slot();
  pair.take_slots(0);
  const size_t end = pair.slots();
  for (const size_t i : {2U, 3U}) pair.give_slot(i);
  pair.take_slot();  // moves the chunk that serves it to the front
  for (size_t i = second + 2; i < end; ++i) pair.give_slot(i);
  return second;
}

/// Judges every sequence of up to 4 requests: a slot is taken, or one of the four that `prepare` names is released.
/// Returns how many.
template <class PREPARE>
uint64_t judge_slots(PREPARE prepare, int refused) {
  return small_inputs::each(5, small_inputs::longest(4), [&](const auto& s) {
    both pair(4096);
    const std::array<size_t, 4> given = prepare(pair);
    fake_pages::refuse(refused);
    for (const uint16_t symbol : s) {
      if (symbol == 0)
        pair.take_slot();
      else
        pair.give_slot(given[symbol - 1U]);
    }
    if (pair.compare().empty()) return true;
    ADD_FAILURE() << "mapping " << refused << " refused: " << pair.compare();
    return false;
  });
}

TEST_F(pools_small_inputs, Slots_are_taken_and_released_as_by_the_model) {
  uint64_t judged = 0;
  for (const int refused : {0, 1}) {
    for (const size_t chunks : {1U, 2U, 3U}) {
      judged += judge_slots(
          [chunks](both& pair) {
            fill_self_heap(pair, chunks);
            return std::array<size_t, 4>{0, 1, pair.slots() * 3 / 4, pair.slots() - 1};
          },
          refused);
    }
    judged += judge_slots(
        [](both& pair) {
          const size_t second = empty_second_chunk(pair);
          return std::array<size_t, 4>{0, 1, second, second + 1};
        },
        refused);
  }
  small_inputs::report("sequences of up to 4 slots taken and released, up to 3 chunks", judged);
}

TEST_F(pools_small_inputs, A_mapping_refused_at_construction_leaves_the_allocator_of_the_model) {
  uint64_t judged = 0;
  for (const long page : {4096, 65536}) {
    for (int refused = 0; refused <= 6; ++refused) {
      small_inputs::each(4, small_inputs::longest(4), [&](const auto& s) {
        both pair(page, refused);
        for (const uint16_t symbol : s) pair.run(take(std::array<size_t, 4>{16, 17, 64, 96}[symbol]));
        for (size_t i = s.size(); i-- > 0;) pair.run(give(i));
        ++judged;
        if (pair.compare().empty()) return true;
        ADD_FAILURE() << "mapping " << refused << " refused: " << pair.compare();
        return false;
      });
    }
  }
  small_inputs::report("sequences of up to 4 requests after a mapping refused at construction", judged);
}

}  // namespace
