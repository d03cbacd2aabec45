// Replaces mmap, munmap and sysconf by functions that count, can refuse, and can return another page size. A program
// that links fake_pages uses them; so does the plug-in that it loads.
#pragma once

#include <cstddef>
#include <map>

#include "tests/support/nth.h"

namespace fake_pages {

/// Mappings requested. A refused one returns null.
extern nth mappings;

/// Mappings made since the last reset(), in all.
int made();
/// The address of mapping number `i` since the last reset(), one of the latest eight; null if it was refused.
void* address_of(int i);
/// Private anonymous mappings alive: address and length. Only those made through the replaced mmap.
std::map<void*, size_t> live();
/// The length of the latest mmap, refused or not.
size_t last_length();

/// Its descriptor and offset.
int last_descriptor();
long last_offset();

/// Makes mapping number `i` (1 is the next) return null and grants all others; 0 refuses none.
void refuse(int i);
/// While on, an unmapped mapping stays mapped for the next request of its length, with the bytes that it holds. Saves
/// system calls where a test maps millions of times. Off unmaps them.
void reuse(bool on);
/// Makes every mapping return null until refuse(0).
void refuse_all();
/// Makes every mapping return MAP_FAILED, like the system, until refuse(0).
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

/// Sets the result of sysconf(_SC_PAGESIZE), a multiple of the machine's page size; 0 is the machine's.
void page_size(long bytes);

/// Clears the counts and refuses nothing. Does not clear live().
void reset();

}  // namespace fake_pages
