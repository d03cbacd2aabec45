#include "tests/support/plugin.h"

#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

// ---------------------------------------------------------------- the library

// The same tests run with the checking layer in front of the plug-in.
const char* library::path() {
  const char* layer = std::getenv("IP6DNS_LAYER");
  return layer ? layer : PLUGIN;
}

bool library::is_loaded() {
  const std::string name = std::filesystem::path(PLUGIN).filename();
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.find(" r-x") != std::string::npos && line.find(name) != std::string::npos) return true;
  return false;
}

namespace {

void* open_library(const char* path) {
  void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!lib) throw std::runtime_error(dlerror());
  return lib;
}

}  // namespace

library::library() : _lib(open_library(path())) {}

library::~library() { dlclose(_lib); }

void* library::symbol(const char* name) const {
  void* at = dlsym(_lib, name);
  if (!at) throw std::runtime_error(std::string("no symbol ") + name);
  return at;
}

int arguments::create(const library& lib) const {
  return lib.create(name, cfgfile, log, logparam, aux1, aux1param, data, dataparam, aux2, aux2param);
}

// ---------------------------------------------------------------- the host's side

arguments recorder::args(const char* name, const char* cfgfile) {
  return {name, cfgfile, on_log, &_log, on_aux, &_aux1, on_data, &_data, on_aux, &_aux2};
}

recorder& recorder::expect(void* param, int argument) {
  const auto* p = static_cast<parameter*>(param);
  if (p->argument == argument) return *p->to;
  const std::lock_guard hold(p->to->_mtx);
  p->to->_journal.push_back("with argument " + std::to_string(p->argument) + ":");
  return *p->to;
}

void recorder::on_log(const char* name, int hostlevel, const char* text, int flag, void* param) {
  recorder& r = expect(param, 4);
  {
    const std::lock_guard hold(r._mtx);
    r._journal.push_back(log(name, hostlevel, text, flag));
    r._messages.emplace_back(text);
  }
  if (r.during_log) r.during_log();
}

void recorder::on_data(const dac_tagvalue* records, int count, void* param) {
  recorder& r = expect(param, 8);
  {
    const std::lock_guard hold(r._mtx);
    r._publications.push_back({*records, count, std::this_thread::get_id()});
    const std::string name(records->name, strnlen(records->name, sizeof records->name));
    r._journal.push_back(data(name, r._publications.back().value()));
  }
  if (r.during_data) r.during_data();
}

void recorder::on_aux(void* param) {
  recorder& r = *static_cast<parameter*>(param)->to;
  const std::lock_guard hold(r._mtx);
  r._journal.emplace_back("aux");
}

std::string recorder::log(const std::string& name, int hostlevel, const std::string& text, int flag) {
  return "log " + name + " " + std::to_string(hostlevel) + " " + std::to_string(flag) + " " + text;
}
std::string recorder::data(const std::string& name, const std::string& value) { return "data " + name + " " + value; }

std::vector<std::string> recorder::journal() const {
  const std::lock_guard hold(_mtx);
  return _journal;
}
std::vector<std::string> recorder::messages() const {
  const std::lock_guard hold(_mtx);
  return _messages;
}
std::vector<publication> recorder::publications() const {
  const std::lock_guard hold(_mtx);
  return _publications;
}
std::vector<std::string> recorder::values() const {
  std::vector<std::string> values;
  for (const publication& p : publications()) values.push_back(p.value());
  return values;
}
void recorder::clear() {
  const std::lock_guard hold(_mtx);
  _journal.clear();
  _messages.clear();
  _publications.clear();
}

// ---------------------------------------------------------------- threads

namespace {

// Not nanosleep: that may be the test's.
void pause_a_millisecond() { poll(nullptr, 0, 1); }

}  // namespace

void await(const std::function<bool()>& condition, const char* what) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error(what);
    pause_a_millisecond();
  }
}

caller::caller(std::function<void()> call)
    : _thread([this, call = std::move(call)] {
        _tid = gettid();
        call();
        _back = true;
      }) {}

void caller::join() {
  if (_thread.joinable()) _thread.join();
}

bool caller::is_asleep() const {
  std::ifstream file("/proc/self/task/" + std::to_string(_tid) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const size_t name_end = stat.rfind(") ");
  return name_end != std::string::npos && stat[name_end + 2] == 'S';
}

bool caller::waits() const {
  constexpr int settled = 5;  // found asleep so often in a row, it is no short wait for a lock
  int asleep = 0;
  await(
      [&] {
        asleep = is_asleep() ? asleep + 1 : 0;
        return _back || asleep == settled;
      },
      "a call neither waits nor comes back");
  return !_back;
}
