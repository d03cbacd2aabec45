// What all targets have in common: one body, run by clang's fuzzer or by the replay of the corpus, and a model whose
// word it is held to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// Runs one input; always 0. What is wrong ends the process.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/// Ends the process, so that the input is kept, unless `holds`.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

}  // namespace fuzz
