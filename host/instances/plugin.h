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

/// Loads the library, found by find_plugin() if `file` is empty. Throws std::runtime_error, one line that names the
/// file and the error, when it cannot be loaded or lacks an entry point, those included that this host does not call.
plugin load_plugin(const std::string& file);

/// The first that exists of: this executable's directory, ../lib/TRIPLET/dac, ../lib/dac and .. from there; the last is
/// where a build has it. Otherwise the bare name, which the dynamic loader searches.
std::string find_plugin();
