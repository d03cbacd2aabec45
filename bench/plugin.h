// The built library, loaded as a host loads it.
#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "driver/dac.h"

class plugin {
 public:
  explicit plugin(const char* path = PLUGIN)
      : _library(dlopen(path, RTLD_NOW | RTLD_LOCAL)),
        create(find<decltype(&dac_create)>("dac_create")),
        destroy(find<decltype(&dac_destroy)>("dac_destroy")),
        start(find<decltype(&dac_start)>("dac_start")),
        stop(find<decltype(&dac_stop)>("dac_stop")),
        isrun(find<decltype(&dac_isrun)>("dac_isrun")),
        getinfo(find<decltype(&dac_getinfo)>("dac_getinfo")) {}
  plugin(const plugin&) = delete;
  plugin& operator=(const plugin&) = delete;

 private:
  void* _library;

  template <class F>
  F find(const char* name) const {
    void* f = _library ? dlsym(_library, name) : nullptr;
    if (!f) throw std::runtime_error(dlerror());
    return reinterpret_cast<F>(f);
  }

 public:
  const decltype(&dac_create) create;
  const decltype(&dac_destroy) destroy;
  const decltype(&dac_start) start;
  const decltype(&dac_stop) stop;
  const decltype(&dac_isrun) isrun;
  const decltype(&dac_getinfo) getinfo;

  /// A stopped instance whose callbacks look at nothing; `data` may be given.
  int make(
      const char* cfgfile, cbdata data = [](const dac_tagvalue*, int, void*) {}, void* param = nullptr) const {
    const cblog log = [](const char*, int, const char*, int, void*) {};
    const int handle = create(
        "bench", cfgfile, log, nullptr, [](void*) {}, nullptr, data, param, nullptr, nullptr);
    if (handle < 0) throw std::runtime_error(std::string("refused: ") + cfgfile);
    return handle;
  }
};
