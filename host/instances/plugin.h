// The plug-in: the entry points that the host calls.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "driver/dac.h"

/// dac.h says what each function does, which threads may call it, and what it throws.
class plugin {
 public:
  plugin() = default;
  virtual ~plugin() = default;
  plugin(const plugin&) = delete;
  plugin& operator=(const plugin&) = delete;

  virtual std::string file() const = 0;
  virtual std::string version_text() const = 0;
  virtual int version() const = 0;

  virtual int create(const char* name, const char* file, cblog log, cbdata data, void* param) const = 0;
  virtual void destroy(int handle) const = 0;
  virtual void start(int handle) const = 0;
  virtual void stop(int handle) const = 0;
  virtual bool is_running(int handle) const = 0;
  virtual void list_tags(int handle, cbtagex callback, void* param) const = 0;
  virtual void get_info(int handle, char* buf, size_t* size) const = 0;
};

/// Loads the library, found by find_plugin() if `file` is empty; it is unloaded with the object, which must outlive all
/// instances. Throws std::runtime_error, one line that names the file and the error, when it cannot be loaded or lacks
/// an entry point, those included that this host does not call.
std::unique_ptr<plugin> load_plugin(const std::string& file);

/// The first that exists of: this executable's directory, ../lib/TRIPLET/dac, ../lib/dac and .. from there; the last is
/// where a build has it. Otherwise the bare name, which the dynamic loader searches.
std::string find_plugin();
