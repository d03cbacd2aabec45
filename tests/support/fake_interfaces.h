// getifaddrs, freeifaddrs and inet_ntop replaced: the interface list is what the test says.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/nth.h"

namespace fake_interfaces {

/// The list from now on: IPv6 addresses as text; "ipv4" is an entry of the other family, "none" one without address.
void set(std::vector<std::string> addresses);
/// From now on getifaddrs yields `result` without a list; 0 lets it work again.
void fail(int result);
/// From now on inet_ntop fails for this address; "" for none.
void refuse_text_of(std::string address);
/// From now on inet_ntop writes these characters, and no terminating zero, for `address`; "" for none.
void set_text_of(std::string address, std::string characters);

/// Calls of getifaddrs, which yields -1 when it is refused, and of inet_ntop.
extern nth list_calls, text_calls;

/// Calls of getifaddrs, of freeifaddrs, and lists not given back yet.
int lists();
int frees();
int outstanding();

/// The room that the latest inet_ntop was told of.
size_t text_room();

/// Empty list, no failure, counts 0.
void reset();

}  // namespace fake_interfaces
