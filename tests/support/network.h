// A network of the test's own, where nothing but the loopback interface exists and the test may give it addresses.
#pragma once

#include <functional>
#include <string>

/// Runs `body` in a child with a network of its own. What it expects in vain is printed there and fails here.
void in_a_network_of_its_own(const std::function<void()>& body);

/// `ip -6 COMMAND`. False when it fails.
bool ip(const std::string& command);

/// As text into a file that is there.
bool write_file(const char* path, const std::string& text);
