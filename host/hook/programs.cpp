#include "host/hook/programs.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "host/display/text.h"

namespace fs = std::filesystem;

namespace {

constexpr char crlf[] = "its lines end with CR LF, and must end with LF";

bool is_executable(const fs::path& file) {
  std::error_code failed;
  return fs::is_regular_file(file, failed) && access(file.c_str(), X_OK) == 0;
}

bool has_slash(const std::string& name) { return name.find('/') != std::string::npos; }

// As posix_spawnp() searches: an empty part is the working directory.
std::vector<fs::path> executables_on_path(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream parts(path ? path + std::string(":") : "/bin:/usr/bin");
  std::vector<fs::path> all;
  for (std::string part; std::getline(parts, part, ':');)
    if (is_executable(fs::path(part) / name)) all.push_back(fs::path(part) / name);
  return all;
}

std::string reason_against_file(const std::string& program) {
  std::error_code failed;
  if (!fs::exists(program, failed)) return "not found";
  return is_executable(program) ? "" : "not executable";
}

// ---------------------------------------------------------------- scripts

struct script {
  std::string interpreter;
  std::string argument;
};

// The first line without "#!", as far as the kernel reads it. False for other files.
bool read_first_line(const fs::path& file, std::string& line) {
  char begin[256];
  std::ifstream in(file, std::ios::binary);
  in.read(begin, sizeof begin);
  const std::string_view text(begin, static_cast<size_t>(in.gcount()));
  if (!text.starts_with("#!")) return false;
  line = text.substr(2, text.find('\n') - 2);
  line.erase(0, line.find_first_not_of(" \t"));
  line.erase(line.find_last_not_of(" \t") + 1);
  return true;
}

// As the kernel does: all words after the interpreter are one argument.
script parse_first_line(const std::string& line) {
  const size_t end = std::min(line.find_first_of(" \t"), line.size());
  const size_t argument = std::min(line.find_first_not_of(" \t", end), line.size());
  return {line.substr(0, end), line.substr(argument)};
}

std::string reason_against_interpreter(const std::string& name, const std::string& reason) {
  return "its interpreter " + name + " is " + reason + (name.ends_with('\r') ? std::string("; ") + crlf : "");
}

// env(1) finds the interpreter if its argument is a name.
bool is_found_by_env(const script& s) {
  return fs::path(s.interpreter).filename() == "env" && !s.argument.empty() && !s.argument.starts_with('-') &&
         s.argument.find_first_of("=/") == std::string::npos;
}

// "" for a file that is not a script or cannot be read.
std::string reason_against_script(const fs::path& file) {
  std::string line;
  if (!read_first_line(file, line)) return "";
  const script s = parse_first_line(line);
  if (s.interpreter.empty()) return "its first line names no interpreter";
  const std::string reason = reason_against_file(s.interpreter);
  if (!reason.empty()) return reason_against_interpreter(s.interpreter, reason);
  if (is_found_by_env(s) && executables_on_path(s.argument).empty())
    return reason_against_interpreter(s.argument, "not found on PATH");
  // Shells refuse an option that ends with CR. Other interpreters may ignore it.
  return s.interpreter.ends_with("sh") && s.argument.ends_with('\r') ? crlf : "";
}

// posix_spawnp() continues its search after a script without an interpreter.
std::string reason_against_name(const std::string& name) {
  std::string first = "not found on PATH";
  bool is_first = true;
  for (const fs::path& file : executables_on_path(name)) {
    const std::string reason = reason_against_script(file);
    if (reason.empty()) return "";
    if (is_first) first = reason;
    is_first = false;
  }
  return first;
}

std::string reason_against(const std::string& program) {
  if (!has_slash(program)) return reason_against_name(program);
  const std::string reason = reason_against_file(program);
  return reason.empty() ? reason_against_script(program) : reason;
}

// ---------------------------------------------------------------- directories

bool has_plain_name(const fs::path& file) {
  const std::string name = file.filename();
  return std::all_of(name.begin(), name.end(), is_plain);
}

// Why a file is not a program of the directory, the most probable mistake first.
std::string reason_for_skipping(std::vector<fs::path> files) {
  std::error_code failed;
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files)
    if (is_executable(file) && file.filename().string().find('.') != std::string::npos)
      return ": " + file.filename().string() + " is skipped because of the \".\" in its name, see run-parts(8)";
  for (const fs::path& file : files)
    if (is_executable(file))
      return ": " + file.filename().string() + " is skipped because of its name, see run-parts(8)";
  for (const fs::path& file : files)
    if (has_plain_name(file) && fs::is_regular_file(file, failed))
      return ": " + file.filename().string() + " is not executable";
  return ", see run-parts(8)";
}

bool is_directory(const std::string& hook) {
  std::error_code failed;
  return has_slash(hook) && fs::is_directory(hook, failed);
}

std::string reason_against_part(const std::string& program) {
  const std::string reason = reason_against(program);
  return reason.empty() ? "" : program + ": " + reason;
}

std::string reason_against_programs(const std::string& hook) {
  if (!is_directory(hook)) return reason_against(hook);
  for (const std::string& program : programs_of(hook))
    if (std::string reason = reason_against_part(program); !reason.empty()) return reason;
  return "";
}

}  // namespace

std::vector<std::string> programs_of(const std::string& hook) {
  if (!is_directory(hook)) return {hook};
  std::error_code failed;
  std::vector<std::string> programs;
  std::vector<fs::path> others;
  for (const fs::path& file : fs::directory_iterator(hook, failed)) {
    if (has_plain_name(file) && is_executable(file))
      programs.push_back(file);
    else
      others.push_back(file);
  }
  if (failed) throw std::system_error(failed);
  if (programs.empty()) throw std::runtime_error("no program in this directory" + reason_for_skipping(others));
  std::sort(programs.begin(), programs.end());
  return programs;
}

void check_hook(const std::string& hook) {
  std::string reason;
  try {
    reason = reason_against_programs(hook);
  } catch (const std::runtime_error& e) {
    reason = e.what();
  }
  if (!reason.empty()) throw std::invalid_argument("--exec: " + hook + ": " + reason);
}

bool starts(const std::string& hook, const std::string& file) {
  const auto is_file = [&file](const fs::path& program) {
    std::error_code failed;
    return fs::equivalent(program, file, failed);
  };
  if (!has_slash(hook)) return std::ranges::any_of(executables_on_path(hook), is_file);
  return std::ranges::any_of(programs_of(hook), is_file);
}
