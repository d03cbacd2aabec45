// The filter for public IPv6 addresses, and the walk over this machine's interfaces.
#pragma once

#include "com/ymlib3/ym_string"

/// True if the address (16 bytes in network order) is public. Every address is, except loopback, multicast, link-local,
/// site-local, IPv4-mapped and IPv4-compatible ones.
// compat: the unspecified address, unique-local, temporary and deprecated addresses are published.
bool is_public_ip6(const unsigned char* a) noexcept;

/// Appends the public addresses of all interfaces to `out` in the system's order, with a comma before each address
/// unless `out` is empty. Returns 0, or the negative result of getifaddrs with `out` unchanged. [any thread]
int getPublicIp6(ym::string_<>& out) noexcept;
