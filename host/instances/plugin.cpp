#include "host/instances/plugin.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace {

struct unload {
  void operator()(void* library) const { dlclose(library); }
};

void* load(const std::string& file) {
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw std::runtime_error(std::string(dlerror()) + "; --plugin FILE names another");
  return library;
}

void never_called(void* /*param*/) {}

class library : public plugin {
 public:
  explicit library(const std::string& file) : _file(file), _library(load(file)) {
    for (const char* name : {"dac_getalltags", "dac_devicewriteobj", "dac_devicewriteval"}) find(name);
  }

  std::string file() const override { return _file; }
  std::string version_text() const override { return *_verson; }
  int version() const override { return _getversion(); }

  int create(const char* name, const char* file, cblog log, cbdata data, void* param) const override {
    return _create(name, file, log, param, never_called, nullptr, data, param, never_called, nullptr);
  }
  void destroy(int handle) const override { _destroy(handle); }
  void start(int handle) const override { _start(handle); }
  void stop(int handle) const override { _stop(handle); }
  bool is_running(int handle) const override { return _isrun(handle) != 0; }
  void list_tags(int handle, cbtagex callback, void* param) const override { _getalltagsex(handle, callback, param); }
  void get_info(int handle, char* buf, size_t* size) const override { _getinfo(handle, buf, size); }

 private:
  struct symbol {
    void* at;
    template <class P>
    operator P() const {
      return reinterpret_cast<P>(at);
    }
  };
  symbol find(const char* name) const {
    void* p = dlsym(_library.get(), name);
    if (!p) throw std::runtime_error(_file + ": lacks the entry point " + name + "; --plugin FILE names another");
    return {p};
  }

  std::string _file;
  std::unique_ptr<void, unload> _library;  // before all that is looked up in it
  decltype(&dac_create) _create = find("dac_create");
  decltype(&dac_destroy) _destroy = find("dac_destroy");
  decltype(&dac_start) _start = find("dac_start");
  decltype(&dac_stop) _stop = find("dac_stop");
  decltype(&dac_isrun) _isrun = find("dac_isrun");
  decltype(&dac_getversion) _getversion = find("dac_getversion");
  decltype(&dac_getalltagsex) _getalltagsex = find("dac_getalltagsex");
  decltype(&dac_getinfo) _getinfo = find("dac_getinfo");
  decltype(&g_verson) _verson = find("g_verson");
};

}  // namespace

std::unique_ptr<plugin> load_plugin(const std::string& file) {
  return std::make_unique<library>(file.empty() ? find_plugin() : file);
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
