// Stores what each hook got, so that it survives a restart.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "host/interface.h"

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
  /// Replaces the instance's record. Throws std::runtime_error.
  virtual void save(const std::string& instance, const hook_record& r) = 0;
};

/// Identifies a hook and its environment, without the variables that change with each start.
std::string settings_of(const std::string& hook, const char* const* environment);

/// One file per instance, replaced atomically. With an empty path there are no records. A record that was saved with
/// other settings is not loaded, so that a hook runs after its settings have changed.
class state_directory : public hook_store {
 public:
  explicit state_directory(std::string path, std::string settings = "none")
      : _path(std::move(path)), _settings(std::move(settings)) {}
  std::optional<hook_record> load(const std::string& instance) override;
  void save(const std::string& instance, const hook_record& r) override;

 private:
  std::string file_of(const std::string& instance) const;

  const std::string _path;
  const std::string _settings;
};
