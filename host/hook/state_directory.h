// Stores what each hook got, so that it survives a restart.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "host/interface.h"
#include "host/loop/event_loop.h"

/// What a hook gets, or the last successful run got.
struct hook_record {
  std::string tag;
  std::string value;
  std::chrono::system_clock::time_point time;

  bool is_same(const hook_record& other) const { return tag == other.tag && value == other.value; }
};

class hook_store : public interface {
 public:
  /// The instance's record, if there is one. Throws std::runtime_error if it is damaged or cannot be read.
  virtual std::optional<hook_record> load(const std::string& instance) = 0;
  /// Replaces the instance's record, possibly later. Then calls `done` with the reason of a failure, or an empty text.
  virtual void save(const std::string& instance, const hook_record& r,
                    std::function<void(const std::string&)> done) = 0;
};

/// Identifies a hook and its environment, without the variables that change with each start.
std::string settings_of(const std::string& hook, const char* const* environment);

/// One file per instance, replaced atomically. With an empty path there are no records. A record that was saved with
/// other settings is not loaded, so that a hook runs after its settings have changed.
class state_directory : public hook_store {
 public:
  state_directory(event_loop& l, std::string path, std::string settings = "none")
      : _loop(l), _path(std::move(path)), _settings(std::move(settings)) {}
  std::optional<hook_record> load(const std::string& instance) override;
  /// In the background: a disk that hangs delays nothing else.
  void save(const std::string& instance, const hook_record& r, std::function<void(const std::string&)> done) override;

 private:
  std::string file_of(const std::string& instance) const;
  void replace(const std::string& instance, const hook_record& r) const;

  event_loop& _loop;
  const std::string _path;
  const std::string _settings;
};
