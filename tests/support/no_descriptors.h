// A process that may not open another file.
#pragma once

#include <sys/resource.h>

/// While it exists, opening a file fails with EMFILE. Call only the code under test: sanitizers open pipes, too.
class no_descriptors {
 public:
  no_descriptors() {
    getrlimit(RLIMIT_NOFILE, &_before);
    const rlimit none = {0, _before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~no_descriptors() { setrlimit(RLIMIT_NOFILE, &_before); }
  no_descriptors(const no_descriptors&) = delete;
  no_descriptors& operator=(const no_descriptors&) = delete;

 private:
  rlimit _before{};
};
