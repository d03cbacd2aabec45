#include "host/plugin.h"

#include <dlfcn.h>

#include <stdexcept>

namespace {

void* load(const std::string& file) {
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw std::runtime_error(std::string(dlerror()) + "; --plugin FILE names another");
  return library;
}

}  // namespace

void plugin::unload::operator()(void* library) const { dlclose(library); }

plugin::plugin(const std::string& file) : _file(file), _library(load(file)) {
  for (const char* name : {"dac_getalltags", "dac_devicewriteobj", "dac_devicewriteval"}) find(name);
}

plugin::symbol plugin::find(const char* name) const {
  void* p = dlsym(_library.get(), name);
  if (!p) throw std::runtime_error(_file + ": lacks the entry point " + name + "; --plugin FILE names another");
  return {p};
}
