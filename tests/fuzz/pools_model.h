// The pools and the self heap: which slot of which chunk serves a request, and which chunks are mapped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "tests/fuzz/target.h"
#include "tests/support/size_classes.h"

namespace fuzz {

/// One mapping, divided into slots. Serves the last freed slot, or else one that was never used.
struct chunk_model {
  size_t count;
  uintptr_t base = 0;  // of slot 0, known from the first slot seen
  size_t used = 0;     // slots used at least once
  std::vector<size_t> freed = {};

  size_t free() const { return count - used + freed.size(); }
  bool is_empty() const { return free() == count; }
  size_t take() {
    if (freed.empty()) return used++;
    const size_t i = freed.back();
    freed.pop_back();
    return i;
  }
  /// Requires that slot `i`, found at this address, is consistent with the others.
  void found(size_t i, size_t slot_size, uintptr_t at) {
    if (base == 0) base = at - i * slot_size;
    require(at == base + i * slot_size, "a slot is at the address for its number");
  }
};

/// The heap of the allocator's own objects.
class heap_model {
 public:
  using chunk = std::list<chunk_model>::iterator;
  struct slot {
    chunk c;
    size_t i;
  };
  static constexpr size_t header = 56, slot_size = 64;

  /// At the start, with `used` slots taken of the mapping at `mapping`.
  heap_model(uintptr_t mapping, size_t used) : _chunks{{count(), mapping + header, used}}, _free(count() - used) {}

  size_t chunks() const { return _chunks.size(); }
  size_t free() const { return _free; }

  slot take() {
    if (_free == 0) {
      _chunks.push_front({count()});
      _free += count();
    }
    auto c = _chunks.begin();
    while (c->free() == 0) ++c;
    const slot s{c, c->take()};
    --_free;
    if (c->free() != 0) _chunks.splice(_chunks.begin(), _chunks, c);  // now serves first
    return s;
  }
  void give(const slot& s) {
    s.c->freed.push_back(s.i);
    ++_free;
    if (s.c == _chunks.begin() || !s.c->is_empty()) return;
    _free -= s.c->count;
    _chunks.erase(s.c);
  }

  static void found(const slot& s, const void* p) { s.c->found(s.i, slot_size, reinterpret_cast<uintptr_t>(p)); }

 private:
  std::list<chunk_model> _chunks;
  size_t _free;

  static size_t count() { return (size_classes::whole_pages(524288) - header) / slot_size; }
};

/// One pool.
class pool_model {
 public:
  struct chunk_and_descriptor : chunk_model {
    std::optional<heap_model::slot> descriptor = {};  // none: made at the start and never released
    const void* descriptor_at = nullptr;
  };
  using chunk = std::list<chunk_and_descriptor>::iterator;
  struct block {
    chunk c;
    size_t i;
  };

  explicit pool_model(const size_classes::row& s) : _class(s) {}

  size_t chunks() const { return _chunks.size(); }
  size_t free() const { return _free; }

  /// The chunk that three pools have from the start.
  void start_with(const void* descriptor_at) {
    _chunks.push_back({{_class.first}, {}, descriptor_at});
    _free = _class.first;
  }

  /// None when a mapping is needed and `refuse`d.
  std::optional<block> take(heap_model& heap, bool refuse) {
    if (_free == 0) {
      const heap_model::slot descriptor = heap.take();
      if (refuse) {
        heap.give(descriptor);
        return {};
      }
      add_chunk(descriptor);
    }
    auto c = _chunks.begin();
    while (c->free() == 0) ++c;
    const block b{c, c->take()};
    --_free;
    // The first chunk stays first. The chunk that served last follows it while it has room.
    if (c != _chunks.begin() && c->free() != 0) _chunks.splice(std::next(_chunks.begin()), _chunks, c);
    return b;
  }

  void give(heap_model& heap, const block& b) {
    b.c->freed.push_back(b.i);
    ++_free;
    const bool reserve = _free == _class.blocks;
    if (_chunks.size() > 3 && b.c->is_empty() && b.c != _chunks.begin() && !reserve) sweep(heap);
  }

  /// Block `b` was found at `p`, after the word `descriptor`.
  void found(const block& b, const void* p, const void* descriptor) const {
    if (!b.c->descriptor_at) {
      heap_model::found(*b.c->descriptor, descriptor);
      b.c->descriptor_at = descriptor;
    }
    require(descriptor == b.c->descriptor_at, "the word before a block is its chunk");
    b.c->found(b.i, _class.size + 8, reinterpret_cast<uintptr_t>(p));
    require(size_classes::whole_pages(b.c->base - 8) == b.c->base - 8, "a chunk's first slot begins its mapping");
  }

 private:
  size_classes::row _class;
  std::list<chunk_and_descriptor> _chunks;
  size_t _free = 0;

  void add_chunk(const heap_model::slot& descriptor) {
    const bool first = _chunks.empty();
    const size_t count = first ? _class.first : _class.blocks;
    _chunks.insert(first ? _chunks.begin() : std::next(_chunks.begin()), {{count}, descriptor, nullptr});
    _free += count;
  }

  // All empty chunks are unmapped, except the first.
  void sweep(heap_model& heap) {
    for (auto c = std::next(_chunks.begin()); c != _chunks.end();) {
      if (!c->is_empty()) {
        ++c;
        continue;
      }
      heap.give(*c->descriptor);
      _free -= c->count;
      c = _chunks.erase(c);
    }
  }
};

}  // namespace fuzz
