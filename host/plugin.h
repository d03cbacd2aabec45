// The loaded library and its entry points, found by name.
#pragma once

#include <memory>
#include <string>

#include "driver/dac.h"

class plugin {
  struct unload {
    void operator()(void* library) const;
  };
  struct symbol {
    void* at;
    template <class P>
    operator P() const {
      return reinterpret_cast<P>(at);
    }
  };
  std::string _file;
  std::unique_ptr<void, unload> _library;  // before all that is looked up in it

  symbol find(const char* name) const;

 public:
  /// Loads the library; all instances must be gone when it is unloaded again. Throws std::runtime_error, one line that
  /// names the file and what is the matter with it, when it cannot be loaded or lacks an entry point, those included
  /// that this host does not call.
  explicit plugin(const std::string& file);

  const std::string& file() const { return _file; }

  decltype(&dac_create) create = find("dac_create");
  decltype(&dac_destroy) destroy = find("dac_destroy");
  decltype(&dac_start) start = find("dac_start");
  decltype(&dac_stop) stop = find("dac_stop");
  decltype(&dac_isrun) isrun = find("dac_isrun");
  decltype(&dac_getversion) getversion = find("dac_getversion");
  decltype(&dac_getalltagsex) getalltagsex = find("dac_getalltagsex");
  decltype(&dac_getinfo) getinfo = find("dac_getinfo");
  decltype(&g_verson) verson = find("g_verson");
};
