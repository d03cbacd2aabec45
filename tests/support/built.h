// What the tests that start programs find of the build that they test.
#pragma once

#include <string>

/// A path, or another property, of the build whose folder the environment variable IP6DNS_BUILD names. The names are in
/// the build's file tests/built. Throws std::runtime_error for an unknown one and without that file.
const std::string& built(const std::string& name);

/// Whether the programs of the build run under an emulator.
inline bool is_emulated() { return !built("emulator").empty(); }
