// The state of a run for operators.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

struct hook_status {
  std::chrono::system_clock::time_point time;  // when the last run ended
  int failures = 0;                            // in a row; 0 after a success
  std::string what;                            // the last result, "" after a success
};

struct instance_status {
  std::string instance;
  std::string tag;
  std::string value;                                               // empty: not published yet
  std::optional<std::chrono::system_clock::time_point> published;  // the last time
  std::optional<hook_status> hook;                                 // none before the first run has ended
  std::string refusal;                                             // of its file at the last reload, or ""
};

/// One line of at most 2000 bytes without control characters: the details of a single instance, or counts for several.
std::string status_line(const std::vector<instance_status>& all, std::chrono::system_clock::time_point now);

/// The state as a JSON document of one line, which doc/dachost.status.schema.json describes.
std::string status_document(const std::vector<instance_status>& all, std::chrono::system_clock::time_point now);
