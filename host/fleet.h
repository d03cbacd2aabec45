// The instances of a run, one for each configuration file.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/instance.h"

/// An instance enters in two steps: prepare() makes it, beside the one that runs on its file so far, and take_over()
/// ends that one. So a file that will not load does no harm to what runs.
class fleet {
 public:
  fleet(const plugin& p, event_queue& q, const std::vector<std::string>& files);
  ~fleet() { stop(); }
  fleet(const fleet&) = delete;
  fleet& operator=(const fleet&) = delete;

  size_t size() const { return _slots.size(); }
  const std::string& file(size_t i) const { return _slots[i].file; }
  const std::string& name(size_t i) const { return _slots[i].name; }

  /// Makes file i's next instance. False, with the plug-in's reason or "", when it is refused.
  bool prepare(size_t i, std::string& reason);
  /// Puts the prepared instances, still stopped, in the place of those that ran on their files.
  void take_over(const std::vector<size_t>& files);

  int handle(size_t i) const { return _slots[i].now->handle(); }
  bool is_running(size_t i) const { return _slots[i].now->is_running(); }
  std::vector<tag> tags(size_t i) const { return _slots[i].now->tags(); }
  /// Throws std::runtime_error when there is no thread to be had.
  void start(size_t i);
  /// Stops all instances side by side.
  void stop();
  /// Destroys all instances.
  void clear();

 private:
  struct slot {
    std::string file;
    std::string name;
    std::unique_ptr<instance> now;
    std::unique_ptr<instance> next;
  };

  const plugin& _plugin;
  event_queue& _queue;
  std::vector<slot> _slots;
};
