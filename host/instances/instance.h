// One driver instance inside the plug-in.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/event.h"
#include "host/instances/plugin.h"

/// Its destructor stops and destroys the driver instance. The plug-in must outlive it.
class instance {
 public:
  /// Receives what the instance reports. [any thread]
  using sink = std::function<void(report_item)>;

  /// Creates a stopped instance. Returns null if the file is unreadable() or the plug-in refuses it. The reason is then
  /// the last failure that the sink has received, if any.
  static std::unique_ptr<instance> make(const plugin& p, const std::string& name, const std::string& file, sink s);
  ~instance();
  instance(const instance&) = delete;
  instance& operator=(const instance&) = delete;

  /// Throws std::system_error when the system refuses a thread.
  void start() { _plugin.start(_handle); }
  /// Waits until the worker has ended. Does nothing if the instance is stopped.
  void stop() { _plugin.stop(_handle); }

  int handle() const { return _handle; }
  bool is_running() const { return _plugin.isrun(_handle) != 0; }
  std::vector<tag> tags() const;
  /// The status document.
  std::string info() const;

 private:
  instance(const plugin& p, sink s) : _plugin(p), _sink(std::move(s)) {}

  // The plug-in's callbacks: they copy and return.
  static void on_log(const char* name, int level, const char* text, int flag, void* param);
  static void on_data(const dac_tagvalue* records, int count, void* param);

  const plugin& _plugin;
  const sink _sink;
  int _handle = -1;
};
