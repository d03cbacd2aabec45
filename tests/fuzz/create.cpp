// An instance of the built library, from create to destroy, with an arbitrary configuration file.
//   input: the file
#include <strings.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "driver/dac.h"
#include "tests/fuzz/config_model.h"
#include "tests/fuzz/json_model.h"
#include "tests/fuzz/target.h"
#include "tests/support/immortal.h"
#include "tests/support/plugin.h"
#include "tests/support/scratch_file.h"

namespace {

using fuzz::require;

// Loaded before the search begins, so that the search counts the library's branches. Never unloaded: the fuzzer reads
// these counts when the process exits.
const library& lib = immortal<library>();

// ---------------------------------------------------------------- the host's side

using journal = std::vector<std::string>;

journal& of(void* param) { return *static_cast<journal*>(param); }

void on_log(const char* name, int hostlevel, const char* text, int flag, void* param) {
  of(param).push_back(std::string(name) + ' ' + std::to_string(hostlevel) + ' ' + std::to_string(flag) + ' ' + text);
}
void on_aux(void* param) { of(param).emplace_back("aux"); }
void on_data(const dac_tagvalue* /*records*/, int /*count*/, void* param) { of(param).emplace_back("data"); }

void on_tag(const char* name, int type, int flag, void* param) {
  of(param).push_back(std::to_string(type) + ' ' + std::to_string(flag) + ' ' + name);
}
void on_tag_ex(const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
  on_tag(name, type, flag, param);
  of(param).push_back(std::string(text1) + '|' + text2);
}

// ---------------------------------------------------------------- what must come of it

// The value of the file's last hostname line, in any section and any case.
std::string hostname_in(std::string_view text) {
  std::string hostname;
  for (const auto& call : fuzz::config_model(text, ";#", SIZE_MAX).calls)
    if (call.key.size() == 8 && strncasecmp(call.key.data(), "hostname", 8) == 0) hostname = call.value;
  return hostname;
}

std::optional<std::string> refusal(const std::string& hostname) {
  if (hostname.empty()) return "not config hostname in ";
  if (hostname.find_first_of("'\"():") != std::string::npos) return "hostname contains illegal characters in ";
  return {};
}

// Handles count up, refused instances included, and 1 follows 2048.
int next_handle() {
  static int last = -1;
  last = last == 2048 ? 1 : last + 1;
  return last;
}

void check_info(int h, const std::string& doc, size_t room) {
  std::string buf(doc.size() + 2, '#');
  size_t n = room;
  require(lib.getinfo(h, buf.data(), &n) == 0, "there is always a status");
  require(n == doc.size() - 1, "its size is one less than its length");
  const std::string expected = room >= doc.size() ? doc + '\0' : std::string(1, '\0');
  require(buf.compare(0, expected.size(), expected) == 0, "the status is written when its length fits");
  require(buf.find_first_not_of('#', expected.size()) == std::string::npos, "nothing is written after it");
}

void check_tags(int h, const std::string& hostname) {
  journal tags;
  require(lib.getalltags(h, on_tag, &tags) == 0 && lib.getalltagsex(h, on_tag_ex, &tags) == 0, "tags are listed");
  const std::string tag = "6 1 " + hostname.substr(0, hostname.find('\0'));
  require(tags == journal{tag, tag, "|ipv6 address"}, "there is one tag, named by the host name");
}

void check_unknown(int h) {
  journal none;
  size_t n = 7;
  require(lib.getinfo(h, nullptr, &n) == -1 && n == 7, "an unknown handle has no status");
  require(lib.getalltagsex(h, on_tag_ex, &none) == -1 && none.empty(), "an unknown handle has no tags");
  require(lib.stop(h) == -1 && lib.isrun(h) == 0, "an unknown handle does not run");
  require(lib.devicewriteobj(h) == -1, "a write to an unknown handle is refused");
}

void check_life(int h, const std::string& hostname) {
  require(lib.isrun(h) == 0 && lib.stop(h) == 0, "a new instance does not run");
  require(lib.devicewriteobj(h) == 4, "writes are refused");
  check_tags(h, hostname);
  const std::string doc = R"({"status":"stop")" + fuzz::json_member("host", hostname, false) + '}';
  for (const size_t room : {size_t{0}, size_t{1}, doc.size() - 1, doc.size(), doc.size() + 1}) check_info(h, doc, room);
  lib.destroy(h);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string hostname = hostname_in(text);
  const auto refused = refusal(hostname);
  const scratch_file file(text);
  journal seen;
  const int h = lib.create("drv", file.path().c_str(), on_log, &seen, on_aux, &seen, on_data, &seen, on_aux, &seen);
  const int next = next_handle();
  require(h == (refused ? -1 : next), "an instance is created if its host name is valid");
  const journal messages = refused ? journal{"drv 2 1 " + *refused + file.path()} : journal{};
  require(seen == messages, "a refusal is logged once");
  if (!refused) check_life(h, hostname);
  require(seen == messages, "an instance without a worker logs nothing");
  check_unknown(next);
  return 0;
}
