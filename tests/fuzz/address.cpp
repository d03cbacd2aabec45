// The filter of public addresses, compared with the system's macros for the kinds of addresses.
//   input: addresses of 16 bytes; each is also tried with every one of its bits flipped
#include <netinet/in.h>

#include <cstring>

#include "driver/publicip6.h"
#include "tests/fuzz/reader.h"
#include "tests/fuzz/target.h"

namespace {

// Addresses that are not published. Unspecified and unique-local addresses are.
bool is_excluded(const in6_addr& a) {
  return IN6_IS_ADDR_LOOPBACK(&a) || IN6_IS_ADDR_MULTICAST(&a) || IN6_IS_ADDR_LINKLOCAL(&a) ||
         IN6_IS_ADDR_SITELOCAL(&a) || IN6_IS_ADDR_V4MAPPED(&a) || IN6_IS_ADDR_V4COMPAT(&a);
}

void check(const in6_addr& a) {
  fuzz::require(is_public_ip6(a.s6_addr) == !is_excluded(a), "an address is public unless its kind is excluded");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::reader in(data, size);
  do {
    in6_addr a{};
    in.take(sizeof a).copy(reinterpret_cast<char*>(&a), sizeof a);
    check(a);
    for (unsigned bit = 0; bit < 128; ++bit) {
      in6_addr near = a;
      near.s6_addr[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
      check(near);
    }
  } while (!in.empty());
  return 0;
}
