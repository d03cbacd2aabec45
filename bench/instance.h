// Instances of the built library.
#pragma once

#include <stdexcept>
#include <string>

#include "driver/dac.h"
#include "tests/support/plugin.h"

/// A stopped instance with empty callbacks; `data` replaces one of them. Throws if the configuration is refused.
inline int make_instance(
    const library& lib, const char* cfgfile, cbdata data = [](const dac_tagvalue*, int, void*) {},
    void* param = nullptr) {
  const cblog log = [](const char*, int, const char*, int, void*) {};
  const cbaux aux = [](void*) {};
  const int handle = lib.create("bench", cfgfile, log, nullptr, aux, nullptr, data, param, nullptr, nullptr);
  if (handle < 0) throw std::runtime_error(std::string("refused: ") + cfgfile);
  return handle;
}
