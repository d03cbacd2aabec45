// Which IPv6 addresses are published, written only from the description. Tests compare the filter with it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace address_model {

using address = std::array<unsigned char, 16>;

/// Whether the bytes from `first` up to, but not including, `last` are zero.
inline bool zero(const address& a, size_t first, size_t last) {
  return std::all_of(a.begin() + static_cast<long>(first), a.begin() + static_cast<long>(last),
                     [](unsigned char byte) { return byte == 0; });
}

inline bool is_loopback(const address& a) { return zero(a, 0, 15) && a[15] == 1; }
inline bool is_multicast(const address& a) { return a[0] == 0xff; }
inline bool is_link_or_site_local(const address& a) { return a[0] == 0xfe && (a[1] & 0x80) != 0; }
inline bool is_ipv4_mapped(const address& a) { return zero(a, 0, 10) && a[10] == 0xff && a[11] == 0xff; }
inline bool is_ipv4_compatible(const address& a) {
  const uint64_t last = a[12] * uint64_t{0x1000000} + a[13] * uint64_t{0x10000} + a[14] * uint64_t{0x100} + a[15];
  return zero(a, 0, 12) && last > 1;
}

inline bool is_published(const address& a) {
  return !is_loopback(a) && !is_multicast(a) && !is_link_or_site_local(a) && !is_ipv4_mapped(a) &&
         !is_ipv4_compatible(a);
}

}  // namespace address_model
