// Common to all targets: one body, run by clang's fuzzer or by the replay of the corpus, and compared with a model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// Runs one input. Always returns 0; an error aborts.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/// Aborts unless `holds`, so that the fuzzer saves the input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

}  // namespace fuzz
