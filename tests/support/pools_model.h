// The memory pools, written only from their description: which mappings a request makes and ends, which address it
// returns, and what the bookkeeping holds afterwards. Tests compare the allocator with it.
//
// The model maps nothing. A function given by the test returns the address of each mapping, or 0 for a refused one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/support/size_classes.h"

namespace pools_model {

using word = uint64_t;

struct heap_chunk {
  word address, length, slot_size, free, count;
  word bump = 0;
  std::vector<word> freed = {};  // the latest one is the head of the list
};

struct self_heap {
  word chunk_size = 524288, slot_request = 56, free = 0;
  std::vector<heap_chunk> chunks = {};  // in the order of the list
};

struct chunk {
  word address;  // of the descriptor
  word free = 0, count = 0, block_size = 0, bump = 0, length = 0, mapping = 0;
  std::vector<word> freed = {};  // the latest one is the head of the list
};

struct pool {
  word address;
  word free = 0, block_size = 0, blocks = 0;
  std::vector<chunk> chunks = {};  // in the order of the list
};

/// What a request returns; `granted` is untouched when no size is written.
struct result {
  word block = 0, granted = 0;
};

class allocator {
 public:
  using mapper = std::function<word(word length)>;

  allocator(word page, mapper map) : _page(page), _map(std::move(map)) {
    if (const word address = map_pages(_self.chunk_size)) add_heap_chunk(address);
    size_t index = 0;
    for (const size_classes::row& c : size_classes::all) {
      pool p{take_slot()};
      p.block_size = (c.size + 7) / 8 * 8;
      p.blocks = c.blocks;
      if (index++ < 3 && !preset(p)) {
        give_slot(p.address);
        continue;
      }
      _pools.push_back(std::move(p));
    }
  }

  const self_heap& self() const { return _self; }
  const std::vector<pool>& pools() const { return _pools; }
  word large() const { return _large; }
  /// Address and length of each mapping.
  const std::map<word, word>& mappings() const { return _mappings; }
  bool is_large(word block) const { return _large_blocks.contains(block); }

  /// What the word before a block holds: its chunk, or 0 for a large block.
  word header_of(word block) const {
    if (is_large(block)) return 0;
    for (const pool& p : _pools)
      for (const chunk& c : p.chunks)
        if (block > c.mapping && block < c.mapping + c.length) return c.address;
    throw std::logic_error("no block of the model");
  }

  /// Mappings requested, including refused ones.
  int requested() const { return _requested; }

  result malloc(word n, word granted_before) {
    result r{0, granted_before};
    size_t low = 0, high = _pools.size();
    while (low < high) {
      const size_t mid = low + (high - low) / 2;
      if (n <= _pools[mid].block_size)
        high = mid;
      else
        low = mid + 1;
    }
    if (low < _pools.size())
      r.block = from_pool(_pools[low], r.granted);
    else
      r.block = large_block(n, r.granted);
    return r;
  }

  void free(word block) {
    if (block == 0) return;
    const auto large = _large_blocks.find(block);
    if (large != _large_blocks.end()) {
      --_large;
      unmap(block - 16);
      _large_blocks.erase(large);
      return;
    }
    to_pool(block);
  }

  /// One slot of the self heap; 0 if refused.
  word take_slot(word n = 56) {
    if (n > _self.slot_request) return 0;
    if (_self.free == 0) {
      const word address = map_pages(_self.chunk_size);
      if (address == 0) return 0;
      add_heap_chunk(address);
    }
    for (size_t i = 0; i < _self.chunks.size(); ++i) {
      heap_chunk& c = _self.chunks[i];
      word slot = 0;
      if (!c.freed.empty()) {
        slot = c.freed.back();
        c.freed.pop_back();
      } else if (c.bump < c.count) {
        slot = c.address + 56 + c.bump++ * c.slot_size;
      } else {
        continue;
      }
      --c.free;
      --_self.free;
      if (i != 0 && c.free != 0) move(_self.chunks, i, 0);
      return slot;
    }
    return 0;
  }

  void give_slot(word slot) {
    for (size_t i = 0; i < _self.chunks.size(); ++i) {
      heap_chunk& c = _self.chunks[i];
      if (slot < c.address + 56 || slot >= c.address + 56 + c.count * c.slot_size) continue;
      c.freed.push_back(slot);
      ++c.free;
      ++_self.free;
      if (i != 0 && c.free == c.count) {
        _self.free -= c.count;
        unmap(c.address);
        _self.chunks.erase(_self.chunks.begin() + static_cast<long>(i));
      }
      return;
    }
  }

 private:
  // ---------------------------------------------------------------- mappings

  word pages(word length) const { return (length + _page - 1) / _page * _page; }

  word map_pages(word length) {
    ++_requested;
    const word address = _map(pages(length));
    if (address != 0) _mappings[address] = pages(length);
    return address;
  }

  void unmap(word address) {
    if (_mappings.erase(address) != 1) throw std::logic_error("the model unmaps what it has not mapped");
  }

  // ---------------------------------------------------------------- self heap

  void add_heap_chunk(word address) {
    const word length = pages(_self.chunk_size);
    const word count = (length - 56) / 64;
    _self.chunks.insert(_self.chunks.begin(), {address, length, 64, count, count});
    _self.free += count;
  }

  template <class T>
  static void move(std::vector<T>& list, size_t from, size_t to) {
    T moved = std::move(list[from]);
    list.erase(list.begin() + static_cast<long>(from));
    list.insert(list.begin() + static_cast<long>(to), std::move(moved));
  }

  // ---------------------------------------------------------------- pools

  /// The first chunk of a class that gets it at construction; false if refused.
  bool preset(pool& p) {
    if (!new_chunk(p)) return false;
    p.free = p.chunks.front().count;
    return true;
  }

  /// Links a chunk with all its blocks free; the counts of the pool are left alone. False if refused.
  bool new_chunk(pool& p) {
    chunk c{take_slot()};
    if (c.address == 0) throw std::logic_error("a refused descriptor: the outcome is undefined");
    word count = p.blocks;
    if (p.chunks.empty() && count > 16 && count * p.block_size > 32768)
      count = std::max<word>(32768 / p.block_size, 16);
    c.length = pages((p.block_size + 8) * count);
    c.mapping = map_pages((p.block_size + 8) * count);
    if (c.mapping == 0) {
      give_slot(c.address);
      return false;
    }
    c.free = c.count = count;
    c.block_size = p.block_size;
    p.chunks.insert(p.chunks.begin() + (p.chunks.empty() ? 0 : 1), c);
    return true;
  }

  static word carve(chunk& c) {
    --c.free;
    return c.mapping + c.bump++ * (c.block_size + 8) + 8;
  }

  word from_pool(pool& p, word& granted) {
    if (p.free == 0) {
      if (!new_chunk(p)) return 0;
      chunk& c = p.chunks[p.chunks.size() == 1 ? 0 : 1];
      p.free = p.free - 1 + c.count;
      granted = p.block_size;
      return carve(c);
    }
    for (size_t i = 0; i < p.chunks.size(); ++i) {
      chunk& c = p.chunks[i];
      word block = 0;
      if (!c.freed.empty()) {
        block = c.freed.back();
        c.freed.pop_back();
        --c.free;
      } else if (c.bump < c.count) {
        block = carve(c);
      } else {
        continue;
      }
      --p.free;
      granted = p.block_size;
      if (i >= 2 && c.free != 0) move(p.chunks, i, 1);
      return block;
    }
    throw std::logic_error("the counts of the model disagree");
  }

  void to_pool(word block) {
    for (pool& p : _pools) {
      for (size_t i = 0; i < p.chunks.size(); ++i) {
        chunk& c = p.chunks[i];
        if (block < c.mapping || block >= c.mapping + c.length) continue;
        c.freed.push_back(block);
        ++c.free;
        ++p.free;
        if (p.chunks.size() > 3 && c.free == c.count && i != 0 && p.free != p.blocks) sweep(p);
        return;
      }
    }
    throw std::logic_error("no block of the model");
  }

  /// Releases every entirely free chunk after the head.
  void sweep(pool& p) {
    for (size_t i = 1; i < p.chunks.size();) {
      if (p.chunks[i].free != p.chunks[i].count) {
        ++i;
        continue;
      }
      const chunk gone = p.chunks[i];
      p.chunks.erase(p.chunks.begin() + static_cast<long>(i));
      unmap(gone.mapping);
      give_slot(gone.address);
      p.free -= p.blocks;
    }
  }

  // ---------------------------------------------------------------- large blocks

  word large_block(word n, word& granted) {
    const word length = pages(n + 16);
    const word address = map_pages(n + 16);
    if (address == 0) return 16;
    granted = length - 16;
    ++_large;
    _large_blocks[address + 16] = length;
    return address + 16;
  }

  word _page;
  mapper _map;
  self_heap _self;
  std::vector<pool> _pools;
  word _large = 0;
  std::map<word, word> _large_blocks;
  std::map<word, word> _mappings;
  int _requested = 0;
};

}  // namespace pools_model
