// A plug-in that follows commands in its configuration files and records the calls of the host.
//
// A file's lines, each optional:
//   refuse [TEXT]   dac_create returns -1, and logs the text if there is one
//   warn TEXT       dac_create logs the text as a failure before it refuses
//   hang            dac_create never returns
//   publish TEXT    dac_start publishes the text
//   fail TEXT       dac_start logs the text as a failure
//   idle            dac_isrun returns 0
//   odd records     dac_start publishes two records at once, their texts up to the last byte of the fields
//   flood N         dac_start logs N messages "message 1 of N" ...
//   failures N      the same as log messages that report failures
//   throw           dac_start throws std::system_error
//   wait for N      dac_stop returns when N instances are being stopped, or after 20 seconds
//   hold FILE       dac_stop returns when there is such a file, or after 20 seconds
//   stop takes MS   dac_stop returns after that many milliseconds
//   obey FIFO       from start to stop a thread reads orders there: publish TEXT, fail TEXT, flood N, failures N
// Compiled with UNDEFINED, it needs a function that no library has.
// Environment: FAKE_JOURNAL, a file that gets a line for every call; FAKE_ROOM, how many instances there can be.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>

#include "driver/dac.h"

namespace {

struct instance {
  std::string name;
  std::map<std::string, std::string> orders;  // first word, rest
  cblog log;
  void* logparam;
  cbdata data;
  void* dataparam;
};

std::mutex mtx;
std::map<int, instance> instances;
std::set<int> running;
std::map<int, std::thread> listeners;  // those that obey
int last_handle = -1;
int stopping = 0;

void write_down(const std::string& line) {
  const char* file = std::getenv("FAKE_JOURNAL");
  if (!file) return;
  const std::lock_guard hold(mtx);
  std::ofstream(file, std::ios::app) << line + '\n' << std::flush;
}

std::map<std::string, std::string> read_orders(const char* file) {
  std::map<std::string, std::string> orders;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    const size_t n = std::min(line.find(' '), line.size());
    orders[line.substr(0, n)] = line.substr(std::min(n + 1, line.size()));
  }
  return orders;
}

size_t room() {
  const char* text = std::getenv("FAKE_ROOM");
  return text ? std::stoul(text) : 1024;
}

bool refuses(const instance& i) {
  const auto order = i.orders.find("refuse");
  if (order == i.orders.end()) return false;
  if (i.orders.contains("warn")) i.log(i.name.c_str(), DAC_LEVEL_FAILURE, i.orders.at("warn").c_str(), 1, i.logparam);
  if (!order->second.empty()) i.log(i.name.c_str(), DAC_LEVEL_FAILURE, order->second.c_str(), 1, i.logparam);
  return true;
}

[[noreturn]] void hang(const instance& i) {
  write_down("hang " + i.name);
  for (;;) pause();
}

int enter(const instance& i) {
  if (refuses(i)) return -1;
  const std::lock_guard hold(mtx);
  if (instances.size() >= room()) return -1;
  instances[++last_handle] = i;
  return last_handle;
}

instance find(int handle) {
  const std::lock_guard hold(mtx);
  return instances.at(handle);
}

void set_running(int handle, bool runs) {
  const std::lock_guard hold(mtx);
  if (runs)
    running.insert(handle);
  else
    running.erase(handle);
}

std::string about(int handle) { return find(handle).name + ' ' + std::to_string(handle); }

void publish_odd_records(const instance& i) {
  dac_tagvalue records[2] = {};
  for (dac_tagvalue& r : records) {
    std::memset(r.name, 'n', sizeof r.name);
    std::memset(r.value, &r == records ? 'a' : 'b', sizeof r.value);
    r.type = DAC_TYPE_TEXT;
    r.len = sizeof r.value;
  }
  i.data(records, 2, i.dataparam);
}

void publish(const instance& i, const std::string& text) {
  dac_tagvalue r = {};
  i.name.copy(r.name, sizeof r.name - 1);
  r.type = DAC_TYPE_TEXT;
  r.len = static_cast<uint16_t>(text.copy(r.value, sizeof r.value - 1));
  i.data(&r, 1, i.dataparam);
}

void flood(const instance& i, int n, int level) {
  for (int k = 1; k <= n; ++k)
    i.log(i.name.c_str(), level, ("message " + std::to_string(k) + " of " + std::to_string(n)).c_str(), 1, i.logparam);
}

void obey(const instance& i, const std::string& line) {
  const size_t n = std::min(line.find(' '), line.size());
  const std::string word = line.substr(0, n), rest = line.substr(std::min(n + 1, line.size()));
  if (word == "publish") publish(i, rest);
  if (word == "fail") i.log(i.name.c_str(), DAC_LEVEL_FAILURE, rest.c_str(), 1, i.logparam);
  if (word == "flood") flood(i, std::stoi(rest), DAC_LEVEL_OTHER);
  if (word == "failures") flood(i, std::stoi(rest), DAC_LEVEL_FAILURE);
}

// The file is open for writing too, so that it does not end when a writer closes it.
void listen(const instance& i, const std::string& fifo) {
  std::fstream in(fifo);
  for (std::string line; std::getline(in, line) && line != "stop";) obey(i, line);
}

void start_listener(int handle, const instance& i) {
  if (!i.orders.contains("obey")) return;
  const std::lock_guard hold(mtx);
  listeners[handle] = std::thread([i] { listen(i, i.orders.at("obey")); });
}

void end_listener(int handle, const instance& i) {
  std::thread listener;
  {
    const std::lock_guard hold(mtx);
    if (!listeners.contains(handle)) return;
    listener = std::move(listeners.at(handle));
    listeners.erase(handle);
  }
  std::ofstream(i.orders.at("obey"), std::ios::app) << "stop\n" << std::flush;
  listener.join();
}

bool is_running(int handle) {
  const std::lock_guard hold(mtx);
  return running.contains(handle);
}

// Only for a running instance.
void stop_slowly(int handle, const instance& i) {
  if (!is_running(handle)) return;
  if (i.orders.contains("stop"))
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(i.orders.at("stop").substr(6))));
  if (!i.orders.contains("hold")) return;
  write_down("held " + about(handle));
  for (int hundredths = 0; hundredths < 2000 && !std::filesystem::exists(i.orders.at("hold")); ++hundredths)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

bool enough_stopping(int n) {
  const std::lock_guard hold(mtx);
  return stopping >= n;
}

bool await_others(int n) {
  for (int tenths = 0; tenths < 200; ++tenths) {
    if (enough_stopping(n)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

}  // namespace

const char* const g_verson = "version of the fake";

#ifdef UNDEFINED
extern "C" int function_that_no_library_has(void);
int dac_getversion(void) { return function_that_no_library_has(); }
#else
int dac_getversion(void) { return 7; }
#endif

int dac_create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux /*aux1*/, void* /*aux1param*/,
               cbdata data, void* dataparam, cbaux /*aux2*/, void* /*aux2param*/) {
  const instance i = {name, read_orders(cfgfile), log, logparam, data, dataparam};
  if (i.orders.contains("hang")) hang(i);
  const int handle = enter(i);
  write_down(std::string("create ") + name + ' ' + std::to_string(handle));
  return handle;
}

void dac_destroy(int handle) {
  write_down("destroy " + about(handle));
  const std::lock_guard hold(mtx);
  instances.erase(handle);
}

int dac_start(int handle) {
  write_down("start " + about(handle));
  const instance i = find(handle);
  if (i.orders.contains("throw"))
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
  set_running(handle, !i.orders.contains("idle"));
  if (i.orders.contains("publish")) publish(i, i.orders.at("publish"));
  if (i.orders.contains("fail")) i.log(i.name.c_str(), DAC_LEVEL_FAILURE, i.orders.at("fail").c_str(), 1, i.logparam);
  if (i.orders.contains("odd")) publish_odd_records(i);
  if (i.orders.contains("flood")) flood(i, std::stoi(i.orders.at("flood")), DAC_LEVEL_OTHER);
  if (i.orders.contains("failures")) flood(i, std::stoi(i.orders.at("failures")), DAC_LEVEL_FAILURE);
  start_listener(handle, i);
  return 0;
}

int dac_stop(int handle) {
  const instance i = find(handle);
  {
    const std::lock_guard hold(mtx);
    ++stopping;
  }
  const bool alone = i.orders.contains("wait") && !await_others(std::stoi(i.orders.at("wait").substr(4)));
  stop_slowly(handle, i);
  end_listener(handle, i);
  set_running(handle, false);
  write_down("stop " + about(handle) + (alone ? " alone" : ""));
  return 0;
}

int dac_isrun(int handle) {
  const std::lock_guard hold(mtx);
  return running.contains(handle) ? 1 : 0;
}
int dac_devicewriteobj(int /*handle*/, ...) { return DAC_WRITE_REFUSED; }
int dac_devicewriteval(int /*handle*/, ...) { return DAC_WRITE_REFUSED; }

int dac_getalltags(int /*handle*/, cbtag /*callback*/, void* /*param*/) { return 0; }

int dac_getalltagsex(int handle, cbtagex callback, void* param) {
  callback(find(handle).name.c_str(), DAC_TYPE_TEXT, 1, "first", "second", param);
  return 0;
}

int dac_getinfo(int /*handle*/, char* buf, size_t* size) {
  buf[0] = 0;
  *size = 0;
  return 0;
}
