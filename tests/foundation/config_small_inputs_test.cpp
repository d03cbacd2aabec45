// Every short configuration text: the scanner makes the calls of the model and has read as far as it says.
//
// A class is a set of bytes that every state of the scanner treats alike. Some groups hold one byte of each class;
// those with more symbols hold several, so that they judge the classes too.
#include "com/ymlib3/ym_config"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "com/ymlib3/ym_string"
#include "tests/support/config_model.h"
#include "tests/support/small_inputs.h"

namespace {

using namespace std::string_view_literals;

using text = ym::string_<>;

// Each byte that a state treats in its own way, and one more of three classes that an implementation may split: the
// ordinary bytes (0xff could be treated as the end of input), the spaces, and the bytes that begin a comment.
constexpr auto all_symbols = "a=[];# \t\n\r\0\xff"sv;

// One byte of each class, if both ';' and '#' begin comments. A zero byte is ordinary except at the end of a value.
constexpr auto classes = "a=[]; \n\r\0"sv;

// The same if one of ';' and '#' begins comments.
constexpr auto chosen_symbols = "a=[];# \n\r\0"sv;

// More ordinary bytes: quotes, and the three bytes of the byte order mark.
constexpr auto more_symbols = "a=[];# \t\n\r\0\xff\"\xef\xbb\xbf"sv;

constexpr auto mark = "\xef\xbb\xbf"sv;

/// A stream in memory that knows how far it has been read.
class memory_stream {
 public:
  explicit memory_stream(std::string_view bytes) : _bytes(bytes) {}

  static bool is_open() { return true; }
  int get() { return _at < _bytes.size() ? static_cast<unsigned char>(_bytes[_at++]) : -1; }
  void rewind() { _at = 0; }
  size_t position() const { return _at; }

 private:
  std::string_view _bytes;
  size_t _at = 0;
};

struct call {
  std::string section, key, value;
  size_t position;  // bytes read before the call
};

/// The calls of the model. The first `size` elements count, so that no text needs a new vector.
struct expectation {
  std::vector<call> calls;
  size_t size = 0;
  size_t position = 0;  // bytes read in all
};

/// `stop`: the number of the call that ends the scan; 0 for none.
void expect(expectation& e, std::string_view input, int commentchar, size_t stop) {
  config_model::scanner model(input, commentchar);
  e.size = 0;
  model.scan([&](const std::string& section, const std::string& key, const std::string& value) {
    if (e.size == e.calls.size()) e.calls.emplace_back();
    call& c = e.calls[e.size++];
    c.section = section;
    c.key = key;
    c.value = value;
    c.position = model.position();
    return e.size == stop ? 1 : 0;
  });
  e.position = model.position();
}

bool same(const text& actual, const std::string& expected) {
  return actual.size() == expected.size() && std::memcmp(actual.c_str(), expected.data(), expected.size()) == 0;
}

/// Whether a scan of `stream` makes the expected calls. `position`: returns the bytes read so far.
template <class STREAM, class POSITION>
bool scans_as(const expectation& e, STREAM& stream, int commentchar, size_t stop, POSITION position) {
  struct {
    const expectation& expected;
    size_t stop;
    POSITION position;
    size_t calls = 0;
    bool agrees = true;
  } run{e, stop, position};
  const bool result = ym::config<text>().scan(
      &stream,
      [&run](const text& section, const text& key, const text& value) {
        if (run.calls >= run.expected.size) {
          run.agrees = false;
          return 1;
        }
        const call& c = run.expected.calls[run.calls++];
        run.agrees = run.agrees && same(section, c.section) && same(key, c.key) && same(value, c.value) &&
                     run.position(c.position) == c.position;
        return run.calls == run.stop ? 1 : 0;
      },
      commentchar);
  return result && run.agrees && run.calls == e.size && position(e.position) == e.position;
}

/// One text as the scanner and the model read it. A disagreement prints the text.
class judge {
 public:
  explicit judge(std::string_view symbols, std::string_view prefix = "") : _symbols(symbols), _text(prefix) {
    _prefix = prefix.size();
  }

  bool operator()(const small_inputs::sequence& s, int commentchar, size_t stop = 0) {
    _text.resize(_prefix);
    for (const uint16_t symbol : s) _text += _symbols[symbol];
    expect(_expected, _text, commentchar, stop);
    memory_stream stream(_text);
    if (scans_as(_expected, stream, commentchar, stop, [&stream](size_t) { return stream.position(); })) return true;
    ADD_FAILURE() << "text " << testing::PrintToString(_text) << ", commentchar " << commentchar << ", stopped at call "
                  << stop;
    return false;
  }

  /// The calls of the latest text.
  size_t calls() const { return _expected.size; }
  const std::string& latest() const { return _text; }
  const expectation& expected() const { return _expected; }

 private:
  std::string_view _symbols;
  size_t _prefix;
  std::string _text;
  expectation _expected;
};

void judge_all(const char* group, std::string_view symbols, size_t longest, int commentchar) {
  judge agrees(symbols);
  small_inputs::report(group, small_inputs::each(symbols.size(), small_inputs::longest(longest),
                                                 [&](const auto& s) { return agrees(s, commentchar); }));
}

// ---------------------------------------------------------------- whole scans

TEST(config_small_inputs, Texts_of_7_symbols_give_the_calls_of_the_model) {
  judge_all("configuration texts of up to 7 symbols, both comment characters", all_symbols, 7, 0);
}

TEST(config_small_inputs, Texts_of_7_symbols_give_the_calls_of_the_model_if_a_semicolon_begins_comments) {
  judge_all("configuration texts of up to 7 symbols, comment character ';'", chosen_symbols, 7, ';');
}

TEST(config_small_inputs, Texts_of_6_symbols_give_the_calls_of_the_model_if_a_hash_begins_comments) {
  judge_all("configuration texts of up to 6 symbols, comment character '#'", all_symbols, 6, '#');
}

TEST(config_small_inputs, Texts_after_a_byte_order_mark_give_the_calls_of_the_model) {
  judge agrees(classes, mark);
  small_inputs::report(
      "configuration texts of up to 5 symbols after a byte order mark",
      small_inputs::each(classes.size(), small_inputs::longest(5), [&](const auto& s) { return agrees(s, 0); }));
}

TEST(config_small_inputs, Quotes_and_parts_of_the_mark_are_ordinary_bytes) {
  judge_all("configuration texts of up to 5 symbols, quotes and bytes of the mark among them", more_symbols, 5, 0);
}

TEST(config_small_inputs, The_comment_character_that_is_not_chosen_is_an_ordinary_byte) {
  judge_all("configuration texts of up to 4 symbols, more symbols, comment character ';'", more_symbols, 4, ';');
  judge_all("configuration texts of up to 4 symbols, more symbols, comment character '#'", more_symbols, 4, '#');
}

TEST(config_small_inputs, A_comment_character_outside_0_to_255_begins_no_comment) {
  for (const int commentchar : {-1, 256 + ';', 256 + '#', -256})
    judge_all("configuration texts of up to 4 symbols, comment character outside 0 to 255", more_symbols, 4,
              commentchar);
}

TEST(config_small_inputs, Pairs_of_all_bytes_give_the_calls_of_the_model) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  uint64_t judged = 0;
  for (const std::string_view before : {""sv, "=a"sv, "[a"sv, "=a "sv, ";"sv, "=a;"sv, mark}) {
    judge agrees(all, before);
    judged += small_inputs::each(all.size(), small_inputs::longest(2), [&](const auto& s) { return agrees(s, 0); });
  }
  small_inputs::report("configuration texts that end with any two bytes", judged);
}

// ---------------------------------------------------------------- stopped scans, files

TEST(config_small_inputs, A_call_that_returns_1_ends_the_scan_where_the_model_does) {
  judge agrees(classes);
  uint64_t stopped = 0;
  small_inputs::each(classes.size(), small_inputs::longest(6), [&](const auto& s) {
    if (!agrees(s, 0)) return false;
    const size_t calls = agrees.calls();
    for (size_t stop = 1; stop <= calls; ++stop) {
      ++stopped;
      if (!agrees(s, 0, stop)) return false;
    }
    return true;
  });
  small_inputs::report("configuration texts of up to 6 symbols, stopped at each call", stopped);
}

/// A file whose bytes can be exchanged; it has a path while the object lives.
class memory_file {
 public:
  memory_file() : _fd(memfd_create("config", MFD_CLOEXEC)), _path("/proc/self/fd/" + std::to_string(_fd)) {
    if (_fd < 0) throw std::runtime_error("memfd_create failed");
  }
  ~memory_file() { ::close(_fd); }
  memory_file(const memory_file&) = delete;
  memory_file& operator=(const memory_file&) = delete;

  void write(std::string_view bytes) const {
    if (ftruncate(_fd, 0) != 0 || pwrite(_fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
      throw std::runtime_error("cannot write " + _path);
  }
  const std::string& path() const { return _path; }

 private:
  int _fd;
  std::string _path;
};

TEST(config_small_inputs, Files_give_the_calls_of_the_model) {
  const memory_file file;
  uint64_t judged = 0;
  for (const std::string_view before : {""sv, "\xef"sv, "\xef\xbb"sv, mark, "\xef\xbb\xbf\xef\xbb\xbf"sv}) {
    judge agrees(more_symbols, before);
    judged += small_inputs::each(more_symbols.size(), small_inputs::longest(3), [&](const auto& s) {
      if (!agrees(s, 0)) return false;
      file.write(agrees.latest());
      ym::rstream_file stream;
      return stream.open(file.path().c_str()) &&
             scans_as(agrees.expected(), stream, 0, 0, [](size_t unknown) { return unknown; });
    });
  }
  small_inputs::report("configuration files of up to 3 symbols after parts of a byte order mark", judged);
}

}  // namespace
