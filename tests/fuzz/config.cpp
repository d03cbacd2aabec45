// The configuration scanner on a file and on a text in memory, compared with the line-by-line model.
//   input: which characters begin comments | how many calls end the scan, 0 none | what the last of them returns | text
#include "com/ymlib3/ym_config"

#include "com/ymlib3/ym_string"
#include "tests/fuzz/config_model.h"
#include "tests/fuzz/reader.h"
#include "tests/fuzz/target.h"
#include "tests/support/scratch_file.h"

namespace {

class text_stream {
 public:
  explicit text_stream(std::string_view text) : _text(text) {}
  int get() { return _at < _text.size() ? static_cast<unsigned char>(_text[_at++]) : -1; }
  void rewind() { _at = 0; }

 private:
  std::string_view _text;
  size_t _at = 0;
};

// Excludes the characters that have another meaning.
struct comment_rule {
  int commentchar;
  const char* begin;
};
constexpr comment_rule rules[] = {{0, ";#"}, {';', ";"}, {'#', "#"}, {'!', "!"}, {'a', "a"}, {0xFF, "\xFF"}};

constexpr int ends[] = {1, -1, 0x100, 0x7FFFFFFF};

std::string copy(const ym::string_<>& s) { return {s.c_str(), s.size()}; }

struct scan {
  int commentchar;
  size_t last;  // the call that ends it
  int end;      // by returning this
};

template <class STREAM>
void check(STREAM& in, const scan& s, const fuzz::config_model& expected, size_t size) {
  std::vector<fuzz::config_call> calls;
  const auto call = [&](const ym::string_<>& section, const ym::string_<>& key, const ym::string_<>& value) {
    calls.push_back({copy(section), copy(key), copy(value)});
    return calls.size() == s.last ? s.end : 0;
  };
  fuzz::require(ym::config<ym::string_<>>().scan(&in, call, s.commentchar), "a scan always succeeds");
  fuzz::require(calls == expected.calls, "a scan makes the calls of the model");
  size_t left = 0;
  while (in.get() != -1) ++left;
  fuzz::require(expected.read + left == size, "a scan reads no more bytes than necessary");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::reader in(data, size);
  const comment_rule& rule = in.pick(rules);
  const size_t last = in.byte() % 16;
  const scan s{rule.commentchar, last == 0 ? SIZE_MAX : last, in.pick(ends)};
  const std::string_view text = in.rest();
  const fuzz::config_model expected(text, rule.begin, s.last);

  text_stream memory(text);
  check(memory, s, expected, text.size());
  const scratch_file disk(text);
  ym::rstream_file file;
  fuzz::require(file.open(disk.path().c_str()), "an existing file opens");
  check(file, s, expected, text.size());
  return 0;
}
