// A program that a test starts.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// How a program ended, and all that it printed.
struct ending {
  int status;  // exit status, or the negative number of the signal that ended it
  std::string out;
  std::string err;
};

struct process_settings {
  std::vector<std::string> environment = {};  // NAME=VALUE, in addition to the test's
  std::string out_file = {};                  // opened as standard output instead of a pipe
  bool out_closed = false;                    // no standard output at all
  int out_fd = -1;                            // becomes standard output instead of a pipe; owned by the caller
  bool err_closed = false;                    // no standard error at all
  std::chrono::seconds limit{20};             // of each wait
};

/// Its output is read only during a wait. Every wait throws after the limit, with the output until then.
class process {
 public:
  /// Starts the program argv[0], a path or a name on PATH. Throws std::system_error when that fails.
  explicit process(std::vector<std::string> argv, const process_settings& s = {});
  /// Kills the program if it still runs.
  ~process();
  process(const process&) = delete;
  process& operator=(const process&) = delete;

  pid_t pid() const { return _pid; }
  void signal(int sig) const;
  /// Stops reading the program's standard output.
  void close_out();
  void close_err();

  /// Waits until the text has been printed.
  void await_out(const std::string& text);
  void await_err(const std::string& text);
  /// Reads standard output until it has this many bytes.
  void read_out(size_t size);
  const std::string& out() const { return _out.text; }
  const std::string& err() const { return _err.text; }
  /// Whether the program still runs. Reads nothing.
  bool is_running() { return !has_ended(); }
  /// Waits for the end, and reads the remaining output.
  ending end();
  /// Waits for the end without reading the remaining output.
  int end_unread();

 private:
  struct stream {
    int fd = -1;
    std::string text;

    bool read_some();
    void close();
  };

  pid_t _pid = -1;
  std::chrono::seconds _limit;
  int _status = 0;
  stream _out;
  stream _err;

  void await(const std::function<bool()>& condition, const std::string& what);
  void read_streams();
  bool has_ended();
};

/// Polls until the condition holds; false when it does not within 20 seconds.
bool eventually(const std::function<bool()>& condition);
