#include "driver/publicip6.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstring>

namespace {

constexpr unsigned char zero[16] = {};

bool is_loopback(const unsigned char* a) noexcept { return std::memcmp(a, zero, 15) == 0 && a[15] == 1; }
bool is_multicast(const unsigned char* a) noexcept { return a[0] == 0xff; }
// fe80::/9 covers link-local fe80::/10 and site-local fec0::/10.
bool is_local(const unsigned char* a) noexcept { return a[0] == 0xfe && (a[1] & 0x80) != 0; }
bool is_ipv4_mapped(const unsigned char* a) noexcept {
  return std::memcmp(a, zero, 10) == 0 && a[10] == 0xff && a[11] == 0xff;
}
// Only above ::1, so the unspecified address is not one of them.
bool is_ipv4_compatible(const unsigned char* a) noexcept {
  return std::memcmp(a, zero, 12) == 0 && (a[12] != 0 || a[13] != 0 || a[14] != 0 || a[15] > 1);
}

// Two appends, so that the string grows as it does for each. If the second gets no storage, the comma stays.
void append_address(ym::string_<>& out, const in6_addr& a) noexcept {
  char text[48] = {};
  if (!inet_ntop(AF_INET6, &a, text, sizeof text)) return;
  if (out.size() != 0) out.append(",", 1);
  if (*text) out.append(text, std::strlen(text));
}

}  // namespace

bool is_public_ip6(const unsigned char* a) noexcept {
  return !is_loopback(a) && !is_multicast(a) && !is_local(a) && !is_ipv4_mapped(a) && !is_ipv4_compatible(a);
}

int getPublicIp6(ym::string_<>& out) noexcept {
  ifaddrs* list = nullptr;
  if (const int failed = getifaddrs(&list); failed < 0) return failed;
  // compat: ignores the interface and its state, and reports an address once for each interface that has it.
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET6) continue;
    const in6_addr& a = reinterpret_cast<const sockaddr_in6*>(i->ifa_addr)->sin6_addr;
    if (is_public_ip6(a.s6_addr)) append_address(out, a);
  }
  if (list) freeifaddrs(list);
  return 0;
}
