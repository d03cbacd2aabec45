// The built library, as a host uses it: loaded by name, called through its entry points, with callbacks that record
// their arguments.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "driver/dac.h"
#include "tests/support/scratch.h"

/// libip6dns.so, loaded and unloaded with the object. Throws std::runtime_error when it cannot be loaded or a symbol
/// is missing.
class library {
  void* _lib;  // before all that is looked up in it

  struct found {
    void* at;
    template <class P>
    operator P() const {
      return reinterpret_cast<P>(at);
    }
  };
  found find(const char* name) const { return {symbol(name)}; }

 public:
  static const char* path();
  /// Whether its code is in this process's memory.
  static bool is_loaded();

  library();
  ~library();
  library(const library&) = delete;
  library& operator=(const library&) = delete;

  void* symbol(const char* name) const;

  decltype(&dac_create) create = find("dac_create");
  decltype(&dac_destroy) destroy = find("dac_destroy");
  decltype(&dac_start) start = find("dac_start");
  decltype(&dac_stop) stop = find("dac_stop");
  decltype(&dac_isrun) isrun = find("dac_isrun");
  decltype(&dac_devicewriteobj) devicewriteobj = find("dac_devicewriteobj");
  decltype(&dac_devicewriteval) devicewriteval = find("dac_devicewriteval");
  decltype(&dac_getversion) getversion = find("dac_getversion");
  decltype(&dac_getalltags) getalltags = find("dac_getalltags");
  decltype(&dac_getalltagsex) getalltagsex = find("dac_getalltagsex");
  decltype(&dac_getinfo) getinfo = find("dac_getinfo");
  decltype(&g_verson) verson = find("g_verson");
};

/// dac_create's arguments, by name.
struct arguments {
  const char* name;
  const char* cfgfile;
  cblog log;
  void* logparam;
  cbaux aux1;
  void* aux1param;
  cbdata data;
  void* dataparam;
  cbaux aux2;
  void* aux2param;

  int create(const library& lib) const;
};

/// One call of the data callback.
struct publication {
  dac_tagvalue record;
  int count;
  std::thread::id thread;

  std::string value() const { return {record.value, record.len}; }
};

/// A host's callbacks. Outlives the instances made with it.
class recorder {
 public:
  /// Called inside the callbacks, before they return. Set while no worker runs; what they refer to outlives its stop.
  std::function<void()> during_log, during_data;

  arguments args(const char* name, const char* cfgfile);

  /// The calls of the callbacks, in order: as log(), as data(), or "aux".
  std::vector<std::string> journal() const;
  static std::string log(const std::string& name, int hostlevel, const std::string& text, int flag = 1);
  static std::string data(const std::string& name, const std::string& value);

  /// The texts of all log messages, in order.
  std::vector<std::string> messages() const;
  std::vector<publication> publications() const;
  std::vector<std::string> values() const;

  /// Forgets all of it.
  void clear();

 private:
  // Each parameter knows which argument it was, so that a callback handed another one's shows.
  struct parameter {
    recorder* to;
    int argument;
  };
  parameter _log{this, 4}, _aux1{this, 6}, _data{this, 8}, _aux2{this, 10};
  mutable std::mutex _mtx;
  std::vector<std::string> _journal, _messages;
  std::vector<publication> _publications;

  static void on_log(const char* name, int hostlevel, const char* text, int flag, void* param);
  static void on_data(const dac_tagvalue* records, int count, void* param);
  static void on_aux(void* param);
  static recorder& expect(void* param, int argument);
};

/// A thread that makes one call, for calls that wait; joined with the object.
class caller {
 public:
  explicit caller(std::function<void()> call);
  ~caller() { join(); }
  caller(const caller&) = delete;
  caller& operator=(const caller&) = delete;

  /// True when the thread waits inside the call, false when it has come back. Throws when neither is so for long.
  bool waits() const;
  void join();

 private:
  std::atomic<int> _tid = 0;
  std::atomic<bool> _back = false;
  std::thread _thread;

  bool is_asleep() const;
};

/// Waits until `condition` holds; throws after 20 seconds, naming `what`.
void await(const std::function<bool()>& condition, const char* what);
