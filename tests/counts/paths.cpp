// Ten paths through the product, whose instructions callgrind counts. counts.sh runs them.
#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <valgrind/callgrind.h>

#include <array>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "com/ymlib3/ym_alloctor"
#include "com/ymlib3/ym_config"
#include "com/ymlib3/ym_handle"
#include "com/ymlib3/ym_json"
#include "com/ymlib3/ym_string"
#include "driver/publicip6.h"
#include "host/display/printer.h"
#include "host/display/table.h"
#include "host/display/text.h"
#include "host/hook/address_filter.h"

namespace {

constexpr int rounds = 200;

volatile size_t result;  // so that no call is optimised away

std::vector<kernel_address> list_of_addresses() {
  std::vector<kernel_address> list;
  for (const char* text : {"2001:db8::1", "2001:db8::2", "fd00::3", "2001:db8::3", "2001:db8::4"}) {
    list.push_back({text, {}, "eth0", RT_SCOPE_UNIVERSE, list.size() % 2 == 0 ? 0U : IFA_F_DEPRECATED});
    inet_pton(AF_INET6, text, &list.back().address);
  }
  return list;
}

const std::string text = std::string(100, 'a') + "\n\"quoted\"\x1b" + std::string(100, 'b');
const std::string addresses = "2001:db8::1,2001:db8::2,fd00::3,2001:db8::3,2001:db8::4";

void pool_blocks() {
  std::array<void*, 50> blocks{};
  for (int n = 0; n < rounds; ++n) {
    for (size_t i = 0; i < blocks.size(); ++i) blocks[i] = get_ym_allocator()->malloc_(20 * i, nullptr);
    for (void* b : blocks) ym_free(b);
  }
}

void string_append() {
  for (int n = 0; n < rounds; ++n) {
    ym::string_<> s;
    for (int i = 0; i < 100; ++i) s.append(text.data(), 7);
    result = s.size();
  }
}

void json_escape() {
  for (int n = 0; n < rounds; ++n) {
    ym::string_<> out;
    int members = 0;
    ym::js::out_jstring(members, "key", text.data(), text.size(), out);
    result = out.size();
  }
}

void config_scan() {
  for (int n = 0; n < 20; ++n) {
    ym::rstream_file file;
    if (!file.open("counts.conf")) std::abort();
    size_t pairs = 0;
    ym::config<ym::string_<>>().scan(
        &file, [&pairs](const auto&, const auto&, const auto&) { return static_cast<int>(0 * ++pairs); }, 0);
    result = pairs;
  }
}

void handle_table() {
  static ym::handle<int> handles;
  for (int n = 0; n < rounds; ++n) {
    const int h = handles.create();
    for (int i = 0; i < 10; ++i) result = handles.get(h) != nullptr;
    handles.del(h);
  }
}

void public_addresses() {
  std::array<unsigned char, 16> address{};
  size_t published = 0;
  for (int n = 0; n < rounds * 256; ++n) {
    address[0] = static_cast<unsigned char>(n);
    address[1] = static_cast<unsigned char>(n >> 2);
    published += is_public_ip6(address.data()) ? 1 : 0;
  }
  result = published;
}

void stable_addresses() {
  const std::vector<kernel_address> list = list_of_addresses();
  for (int n = 0; n < rounds; ++n) result = value_of(choose({address_filter::kind::stable}, list)).size();
}

void printable_text() {
  for (int n = 0; n < rounds; ++n) result = tabbed({text, addresses, text}).size();
}

void json_document() {
  static const std::string document = R"({"name":")" + std::string(300, 'a') + R"(","value":"b"})";
  for (int n = 0; n < rounds; ++n) result = json_line(document).size();
}

void table_of_top() {
  const std::vector<row> rows(20, {"instance", 1, true, std::chrono::seconds(61), 3, 2, "host.example", addresses});
  for (int n = 0; n < 20; ++n) result = table(rows, 100).size();
}

constexpr struct {
  const char* name;
  void (*run)();
} paths[] = {{"pool_blocks", pool_blocks},           {"string_append", string_append},
             {"json_escape", json_escape},           {"config_scan", config_scan},
             {"handle_table", handle_table},         {"public_addresses", public_addresses},
             {"stable_addresses", stable_addresses}, {"printable_text", printable_text},
             {"json_document", json_document},       {"table_of_top", table_of_top}};

}  // namespace

int main() {
  std::ofstream file("counts.conf");
  for (int n = 0; n < 50; ++n) file << "[section" << n << "]\nkey = " << addresses << " ; not a comment\n# comment\n";
  file.close();
  for (const auto& path : paths) {
    path.run();  // fills pools and caches
    CALLGRIND_TOGGLE_COLLECT;
    path.run();
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_DUMP_STATS_AT(path.name);
  }
}
