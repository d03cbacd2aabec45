// Time of the entry points that a host calls most, another thread alive.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench/instance.h"
#include "bench/mutex_pair.h"
#include "bench/other_thread.h"
#include "bench/versus.h"
#include "tests/support/scratch_file.h"

namespace {

other_thread g_other;

constexpr int calls = 1000;
constexpr char host[] = "gateway.example.org";

uint64_t ask(int (*question)(int), int handle) {
  uint64_t sum = 0;
  for (int i = 0; i < calls; ++i) sum += static_cast<uint64_t>(question(handle));
  return sum;
}

using document = void (*)(const library& p, int handle, char* buf, size_t size);

void from_plugin(const library& p, int handle, char* buf, size_t size) { p.getinfo(handle, buf, &size); }

void from_printf(const library& /*p*/, int handle, char* buf, size_t size) {
  std::snprintf(buf, size, R"({"status":"%s","host":"%s"})", handle < 0 ? "running" : "stop", host);
}

std::string text_of(document write, const library& p, int handle) {
  char buf[128];
  write(p, handle, buf, sizeof buf);
  return buf;
}

uint64_t write_all(document write, const library& p, int handle) {
  uint64_t sum = 0;
  for (int i = 0; i < calls; ++i) {
    char buf[128];
    write(p, handle, buf, sizeof buf);
    sum += static_cast<uint64_t>(buf[2] + buf[11]);
  }
  return sum;
}

}  // namespace

void enter() {
  const auto p = std::make_shared<library>();
  const scratch_file file(std::string("hostname = ") + host + "\n");
  const int handle = make_instance(*p, file.path().c_str());
  int (*const bare)(int) = mutex_pair;
  versus(
      "dac_isrun", "mutex pair in a library", calls, [=] { return ask(p->isrun, handle); },
      [=] { return ask(bare, handle); });
  if (text_of(from_plugin, *p, handle) != text_of(from_printf, *p, handle))
    throw std::runtime_error("documents differ");
  versus(
      "dac_getinfo", "snprintf", calls, [=] { return write_all(from_plugin, *p, handle); },
      [=] { return write_all(from_printf, *p, handle); });
}
