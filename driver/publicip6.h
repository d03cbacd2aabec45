// Which IPv6 addresses are public, and the walk over this machine's interfaces.
#pragma once

#include "com/ymlib3/ym_string"

/// Whether the 16 bytes of an address, network order, are published: all but loopback, multicast, link-local,
/// site-local, IPv4-mapped and IPv4-compatible ones.
// kept: the unspecified address, unique-local ones, and temporary and deprecated ones are published.
bool is_public_ip6(const unsigned char* a) noexcept;

/// Appends the public addresses of all interfaces, in the system's order, separated by commas from each other and from
/// what stands in `out`. 0, or getifaddrs's negative result with `out` unchanged. [any thread]
int getPublicIp6(ym::string_<>& out) noexcept;
