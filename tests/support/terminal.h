// A terminal with a shell, run by tmux.
#pragma once

#include <functional>
#include <string>
#include <vector>

/// Every wait ends after 20 seconds with an exception that shows the screen.
class terminal {
 public:
  /// `directory` gets the terminal's socket.
  terminal(const std::string& directory, int width, int height);
  ~terminal();
  terminal(const terminal&) = delete;
  terminal& operator=(const terminal&) = delete;

  /// Types the text and then the key: a name of tmux such as "Enter", "C-c", "PPage".
  void type(const std::string& text);
  void press(const std::string& key);
  /// Types several keys in one write.
  void press_at_once(std::vector<std::string> keys);
  /// Types bytes, of which tmux need not know a key.
  void press_bytes(const std::string& bytes);
  void resize(int width, int height);

  /// The screen's lines, without the empty ones at its end.
  std::vector<std::string> lines() const;
  /// Waits until the condition holds for the screen's lines, and returns them.
  std::vector<std::string> await(const std::function<bool(const std::vector<std::string>&)>& condition) const;
  /// Waits for a line that contains the text.
  std::vector<std::string> await(const std::string& text) const;

  /// Whether a program uses the alternate screen, and whether the cursor is visible.
  bool is_alternate() const { return format("#{alternate_on}") == "1"; }
  bool has_cursor() const { return format("#{cursor_flag}") == "1"; }
  /// Closes the terminal while programs run in it.
  void hang_up();

 private:
  std::string _socket;

  std::string tmux(std::vector<std::string> args) const;
  std::string format(const std::string& what) const;
};
