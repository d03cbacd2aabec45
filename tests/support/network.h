// A test body in a network namespace, where it may add addresses and interfaces.
#pragma once

#include <functional>

#include "tests/support/network_namespace.h"

/// Runs `body` in a child process in a new network namespace. Its failed expectations are printed and fail this test.
void in_new_network(const std::function<void()>& body);
