// mmap, munmap and sysconf replaced by ones that count, can refuse, and can tell another page size. Linking
// fake_pages puts them into the program; the plug-in that the program loads uses them too.
#pragma once

#include <cstddef>
#include <map>

#include "tests/support/nth.h"

namespace fake_pages {

/// Mappings asked for; one that is refused yields null.
extern nth mappings;

/// Mappings made since the last reset(), in all.
int made();
/// The address of mapping number `i` since the last reset(), one of the latest eight; null if it was refused.
void* address_of(int i);
/// Private anonymous mappings alive: address and length. Only those made through the replaced mmap.
std::map<void*, size_t> live();
/// The length asked of the latest mmap, refused or not.
size_t last_length();

/// The descriptor and the offset asked with it.
int last_descriptor();
long last_offset();

/// From now on mapping number `i` (1 is the next) yields null, all others are granted; 0 refuses none.
void refuse(int i);
/// While on, an unmapped mapping stays mapped for the next request of its length, with the bytes that it holds. Saves
/// system calls where a test maps millions of times. Off unmaps them.
void reuse(bool on);
/// From now on every mapping yields null, until refuse(0).
void refuse_all();
/// From now on every mapping yields MAP_FAILED, as the system itself refuses, until refuse(0).
void fail_all();

/// Refuses every mapping during its lifetime, unless `refuse` is false. One at a time.
class refusal {
 public:
  explicit refusal(bool refuse = true) : _refuse(refuse) {
    if (_refuse) refuse_all();
  }
  ~refusal() {
    if (_refuse) fake_pages::refuse(0);
  }
  refusal(const refusal&) = delete;
  refusal& operator=(const refusal&) = delete;

  bool has_refused() const { return _refuse && made() != _before; }

 private:
  bool _refuse;
  int _before = made();
};

/// What sysconf(_SC_PAGESIZE) tells; 0 is the machine's own. A multiple of the machine's own.
void page_size(long bytes);

/// Forgets the counts and refuses nothing; live() is kept.
void reset();

}  // namespace fake_pages
