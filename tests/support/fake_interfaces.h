// Replaces getifaddrs, freeifaddrs and inet_ntop: the test sets the interface list.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/nth.h"

namespace fake_interfaces {

/// Sets the list: IPv6 addresses as text; "ipv4" is an entry of the other family, "none" one without address.
void set(std::vector<std::string> addresses);
/// Makes getifaddrs return `result` without a list; 0 makes it work again.
void fail(int result);
/// Makes inet_ntop fail for this address; "" for none.
void refuse_text_of(std::string address);
/// Makes inet_ntop write these characters, without a terminating zero, for `address`; "" for none.
void set_text_of(std::string address, std::string characters);

/// Calls of getifaddrs, which returns -1 if refused, and of inet_ntop.
extern nth list_calls, text_calls;

/// Calls of getifaddrs, of freeifaddrs, and lists not freed yet.
int lists();
int frees();
int outstanding();

/// The size that was passed to the latest inet_ntop.
size_t text_room();

/// Empty list, no failure, counts 0.
void reset();

}  // namespace fake_interfaces
