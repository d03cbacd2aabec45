#include "host/instances/plugin.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace {

template <class F>
F* find(const plugin& p, const char* name) {
  void* at = dlsym(p.library.get(), name);
  if (!at) throw std::runtime_error(p.file + ": lacks the entry point " + name + "; --plugin FILE names another");
  return reinterpret_cast<F*>(at);
}

}  // namespace

plugin load_plugin(const std::string& file) {
  plugin p;
  p.file = file.empty() ? find_plugin() : file;
  void* library = dlopen(p.file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw std::runtime_error(std::string(dlerror()) + "; --plugin FILE names another");
  p.library = std::shared_ptr<void>(library, dlclose);
  for (const char* name : {"dac_getalltags", "dac_devicewriteobj", "dac_devicewriteval"}) find<void>(p, name);
  p.create = find<decltype(dac_create)>(p, "dac_create");
  p.destroy = find<decltype(dac_destroy)>(p, "dac_destroy");
  p.start = find<decltype(dac_start)>(p, "dac_start");
  p.stop = find<decltype(dac_stop)>(p, "dac_stop");
  p.isrun = find<decltype(dac_isrun)>(p, "dac_isrun");
  p.getalltagsex = find<decltype(dac_getalltagsex)>(p, "dac_getalltagsex");
  p.getinfo = find<decltype(dac_getinfo)>(p, "dac_getinfo");
  p.version = find<decltype(dac_getversion)>(p, "dac_getversion")();
  p.version_text = *find<const char* const>(p, "g_verson");
  return p;
}

std::string find_plugin() {
  constexpr char name[] = "libip6dns.so";
  std::error_code failed;
  const fs::path here = fs::read_symlink("/proc/self/exe", failed).parent_path();
  if (failed) return name;
  for (const char* place : {".", "../lib/" LIBRARY_TRIPLET "/dac", "../lib/dac", ".."}) {
    const fs::path file = (here / place / name).lexically_normal();
    if (fs::exists(file, failed)) return file;
  }
  return name;
}
