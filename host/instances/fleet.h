// The instances of a run, one for each configuration file.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/instances/instance.h"

class fleet {
 public:
  explicit fleet(const std::vector<std::string>& files);

  size_t size() const { return _slots.size(); }
  const std::string& file(size_t i) const { return _slots[i].file; }
  const std::string& name(size_t i) const { return _slots[i].name; }

  /// File i's instance, or null.
  instance* get(size_t i) const { return _slots[i].now.get(); }
  /// Replaces file i's instance and returns the previous one.
  std::unique_ptr<instance> replace(size_t i, std::unique_ptr<instance> next);

 private:
  struct slot {
    std::string file;
    std::string name;
    std::unique_ptr<instance> now;
  };
  std::vector<slot> _slots;
};

/// Returns the stem of each file. Files that share a stem get their paths instead, and a name that is already taken
/// gets "#2", "#3" ... appended.
std::vector<std::string> instance_names(const std::vector<std::string>& files);
