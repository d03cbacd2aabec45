#include "tests/support/terminal.h"

#include <sstream>
#include <stdexcept>

#include "tests/support/process.h"

namespace {

std::string joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& line : lines) all += line + '\n';
  return all;
}

// A tmux server does not end at once, so the next one gets another socket.
std::string fresh_socket(const std::string& directory) {
  static int count = 0;
  return directory + "/terminal" + std::to_string(++count);
}

}  // namespace

// The leak check stops its process like a debugger. A SIGCONT from tmux would make it wait forever. Programs without a
// terminal are checked.
terminal::terminal(const std::string& directory, int width, int height) : _socket(fresh_socket(directory)) {
  tmux({"-f", "/dev/null", "new", "-d", "-x", std::to_string(width), "-y", std::to_string(height),
        "env PS1='$ ' ASAN_OPTIONS=detect_leaks=0 sh"});
  await("$");
}

terminal::~terminal() { process({"tmux", "-S", _socket, "kill-server"}).end_unread(); }

void terminal::type(const std::string& text) { tmux({"send-keys", "-l", text}); }
void terminal::press(const std::string& key) { tmux({"send-keys", key}); }
void terminal::press_at_once(std::vector<std::string> keys) {
  keys.insert(keys.begin(), "send-keys");
  tmux(keys);
}
void terminal::press_bytes(const std::string& bytes) {
  std::vector<std::string> args = {"send-keys", "-H"};
  for (const char byte : bytes) {
    std::ostringstream hex;
    hex << std::hex << int{static_cast<unsigned char>(byte)};
    args.push_back(hex.str());
  }
  tmux(args);
}

void terminal::resize(int width, int height) {
  tmux({"resize-window", "-x", std::to_string(width), "-y", std::to_string(height)});
}

std::vector<std::string> terminal::lines() const {
  std::vector<std::string> all;
  std::istringstream in(tmux({"capture-pane", "-p"}));
  for (std::string line; std::getline(in, line);) all.push_back(line);
  while (!all.empty() && all.back().empty()) all.pop_back();
  return all;
}

std::vector<std::string> terminal::await(const std::function<bool(const std::vector<std::string>&)>& condition) const {
  std::vector<std::string> seen;
  const auto holds = [&] {
    seen = lines();
    return condition(seen);
  };
  if (!eventually(holds)) throw std::runtime_error("timeout; the screen:\n" + joined(seen));
  return seen;
}

std::vector<std::string> terminal::await(const std::string& text) const {
  return await([&](const std::vector<std::string>& all) { return joined(all).find(text) != std::string::npos; });
}

void terminal::hang_up() { tmux({"kill-pane"}); }

std::string terminal::tmux(std::vector<std::string> args) const {
  args.insert(args.begin(), {"tmux", "-S", _socket});
  const ending e = process(args).end();
  if (e.status != 0) throw std::runtime_error("tmux: " + e.err);
  return e.out;
}

std::string terminal::format(const std::string& what) const {
  std::string text = tmux({"display-message", "-p", what});
  if (text.ends_with('\n')) text.pop_back();
  return text;
}
