// One driver instance inside the plug-in.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/plugin.h"
#include "host/queue.h"

/// A tag as dac_getalltagsex reports it.
struct tag {
  std::string name;
  int type;
  int flag;
  std::string text1;
  std::string text2;
};

/// Where an instance's events go, and as whose.
struct event_sink {
  event_queue& queue;
  size_t index;
};

/// Stops and destroys itself. Plug-in and queue must outlive it.
class instance {
 public:
  /// A new stopped instance, or null with the plug-in's reason in `reason`, which is empty when it gave none.
  static std::unique_ptr<instance> make(const plugin& p, event_sink sink, const std::string& name,
                                        const std::string& file, std::string& reason);
  ~instance();
  instance(const instance&) = delete;
  instance& operator=(const instance&) = delete;

  /// Throws std::system_error when there is no thread to be had.
  void start();
  /// Waits for the worker's end; does nothing on a stopped instance.
  void stop();

  int handle() const { return _handle; }
  bool is_running() const { return _plugin.isrun(_handle) != 0; }
  std::vector<tag> tags() const;
  /// The status document.
  std::string info() const;

 private:
  instance(const plugin& p, event_sink sink) : _plugin(p), _sink(sink) {}

  // The plug-in's callbacks: they copy, queue and return.
  static void on_log(const char* name, int level, const char* text, int flag, void* param);
  static void on_data(const dac_tagvalue* records, int count, void* param);

  const plugin& _plugin;
  event_sink _sink;
  int _handle = -1;
  std::string _refusal;  // the last failure told before there was a handle
};
