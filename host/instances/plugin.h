// The plug-in: the entry points that the host calls.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>

#include "driver/dac.h"

/// dac.h says what each function does, which threads may call it, and what it throws.
struct plugin {
  std::shared_ptr<void> library;  // first, so that it is unloaded last
  std::string file;
  std::string version_text;
  int version = 0;
  std::function<std::remove_pointer_t<decltype(&dac_create)>> create;
  std::function<void(int)> destroy;
  std::function<int(int)> start, stop, isrun;
  std::function<int(int, cbtagex, void*)> getalltagsex;
  std::function<int(int, char*, size_t*)> getinfo;
};

/// Loads the library; find_plugin() finds it if `file` is empty. Throws std::runtime_error if the library cannot be
/// loaded or lacks an entry point, even one that this host does not call. The message is one line with file and error.
plugin load_plugin(const std::string& file);

/// Searches this executable's directory, and relative to it ../lib/TRIPLET/dac, ../lib/dac and .. (in a build
/// directory). Returns the first library that exists, otherwise the bare name, for which the dynamic loader searches.
std::string find_plugin();
