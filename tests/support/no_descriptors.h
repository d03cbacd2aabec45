// A process that may not open another file.
#pragma once

/// While it exists, the C++ library opens no file and no directory: fopen() and openat() fail with EMFILE. Sanitizers
/// still open pipes, which a limit of the process would prevent.
struct no_descriptors {
  no_descriptors();
  ~no_descriptors();
  no_descriptors(const no_descriptors&) = delete;
  no_descriptors& operator=(const no_descriptors&) = delete;
};
