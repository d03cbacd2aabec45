#include "host/hook/state_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "host/display/text.h"

namespace {

constexpr char header[] = "dachost state 1";
constexpr mode_t owner_only = S_IRUSR | S_IWUSR;

[[noreturn]] void fail(const std::string& file) { throw std::system_error(errno, std::generic_category(), file); }

class descriptor {
 public:
  descriptor(const std::string& file, int flags) : _file(file), _fd(open(file.c_str(), flags | O_CLOEXEC, owner_only)) {
    if (_fd == -1) fail(file);
  }
  ~descriptor() { close(_fd); }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;

  void write(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t n = ::write(_fd, text.data(), text.size());
      if (n == -1 && errno != EINTR) fail(_file);
      if (n != -1) text.remove_prefix(static_cast<size_t>(n));
    }
  }
  // Regardless of the umask.
  void make_readable() const {
    if (fchmod(_fd, owner_only) != 0) fail(_file);
  }
  void sync() const {
    if (fsync(_fd) != 0) fail(_file);
  }

 private:
  const std::string& _file;
  int _fd;
};

int64_t seconds_of(const hook_record& r) {
  return std::chrono::floor<std::chrono::seconds>(r.time.time_since_epoch()).count();
}

struct saved {
  hook_record record;
  std::string settings;
};

std::optional<saved> parse(const std::string& text) {
  std::istringstream lines(text);
  std::string first;
  std::string time;
  hook_record r;
  std::string settings;
  for (std::string* line : {&first, &time, &r.tag, &r.value, &settings})
    if (!std::getline(lines, *line) || lines.eof()) return std::nullopt;  // the last line, too, has an end
  int64_t s = 0;
  const char* const end = time.data() + time.size();
  const auto [last, failed] = std::from_chars(time.data(), end, s);
  constexpr int64_t latest = 9'000'000'000;  // fits the clock
  if (s < 0 || s > latest || first != header || failed != std::errc() || last != end) return std::nullopt;
  r.time = std::chrono::system_clock::time_point(std::chrono::seconds(s));
  return lines.peek() == EOF && !r.value.empty() ? std::optional(saved{r, settings}) : std::nullopt;
}

uint64_t hash(const std::string& text) {  // FNV-1a
  uint64_t h = 0xcbf29ce484222325U;
  for (const char c : text) h = (h ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
  return h;
}

// As in a URL. A name that is too long for a file is cut and gets a hash of the whole.
std::string file_name(const std::string& instance) {
  constexpr size_t longest = 200;
  std::string name;
  char escape[24] = {};
  for (const char c : instance) {
    const auto byte = static_cast<unsigned char>(c);
    std::snprintf(escape, sizeof escape, is_plain(byte) || c == '.' ? "%c" : "%%%02X", byte);
    name += escape;
  }
  if (name.size() <= longest) return name + ".state";
  std::snprintf(escape, sizeof escape, "-%016llx", static_cast<unsigned long long>(hash(instance)));
  return name.substr(0, longest) + escape + ".state";
}

}  // namespace

std::string settings_of(const std::string& hook, const char* const* environment) {
  // systemd, see systemd.exec(5), and shells set these to another value at each start.
  const std::set<std::string> changing = {"INVOCATION_ID",
                                          "JOURNAL_STREAM",
                                          "LISTEN_PID",
                                          "LISTEN_PIDFDID",
                                          "MANAGERPID",
                                          "MANAGERPIDFDID",
                                          "SYSTEMD_EXEC_PID",
                                          "TRIGGER_PATH",
                                          "TRIGGER_TIMER_MONOTONIC_USEC",
                                          "TRIGGER_TIMER_REALTIME_USEC",
                                          "TRIGGER_UNIT",
                                          "OLDPWD",
                                          "PWD",
                                          "SHLVL",
                                          "_"};
  std::set<std::string> all;
  for (; *environment; ++environment) {
    const std::string variable = *environment;
    if (!changing.contains(variable.substr(0, variable.find('=')))) all.insert(variable);
  }
  std::string text = hook;
  for (const std::string& variable : all) text += '\0' + variable;
  char digits[24];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash(text)));
  return digits;
}

std::string state_directory::file_of(const std::string& instance) const {
  return _path.empty() ? "" : _path + '/' + file_name(instance);
}

std::optional<hook_record> state_directory::load(const std::string& instance) {
  const std::string file = file_of(instance);
  std::error_code ignored;
  const bool exists = std::filesystem::exists(file, ignored);
  if (exists && !std::filesystem::is_regular_file(file, ignored))
    throw std::runtime_error(file + ": not a regular file");
  const std::ifstream in(file);
  if (!in && errno == ENOENT) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  if (!in) fail(file);
  const std::optional<saved> s = parse(text.str());
  if (!s) throw std::runtime_error(file + ": damaged");
  return s->settings == _settings ? std::optional(s->record) : std::nullopt;
}

void state_directory::save(const std::string& instance, const hook_record& r,
                           std::function<void(const std::string&)> done) {
  if (_path.empty()) return done("");
  _loop.run_in_background([this, instance, r, done = std::move(done)]() -> event_loop::task {
    try {
      replace(instance, r);
    } catch (const std::runtime_error& e) {
      return [done, reason = std::string(e.what())] { done(reason); };
    }
    return [done] { done(""); };
  });
}

// After a power failure the file is either the old one or the new one.
void state_directory::replace(const std::string& instance, const hook_record& r) const {
  const std::string file = file_of(instance);
  const std::string next = file + ".tmp";
  unlink(next.c_str());
  {
    const descriptor out(next, O_WRONLY | O_CREAT | O_EXCL);
    out.make_readable();
    out.write(std::string(header) + '\n' + std::to_string(seconds_of(r)) + '\n' + r.tag + '\n' + r.value + '\n' +
              _settings + '\n');
    out.sync();
  }
  if (rename(next.c_str(), file.c_str()) != 0) fail(file);
  descriptor(_path, O_RDONLY | O_DIRECTORY).sync();
}
