// One driver instance: its configuration, its worker thread, and its answers to the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <thread>

#include "com/ymlib3/ym_string"
#include "driver/dac.h"
#include "driver/logDac.h"

/// Constructed stopped. Takes no locks: the host follows the rules of dac.h about concurrent calls.
class ip6dnsDriver {
 public:
  ip6dnsDriver() = default;
  // compat: does not stop the worker. Destroying a running instance is a caller error.
  ~ip6dnsDriver() = default;
  ip6dnsDriver(const ip6dnsDriver&) = delete;
  ip6dnsDriver& operator=(const ip6dnsDriver&) = delete;

  /// Stores dac_create's arguments and reads the configuration. False if an argument is missing (logs nothing) or the
  /// configuration is not valid (logs one message).
  bool Create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux aux1, void* aux1param,
              cbdata data, void* dataparam, cbaux aux2, void* aux2param);

  /// Reads "hostname" from the file into _hostname. False if the file cannot be opened.
  bool loadConfig(const char* path);

  /// Starts a worker without checking whether one runs. Throws std::system_error if the system refuses a thread, and
  /// std::bad_alloc if there is no memory.
  void Start();
  /// Stops the worker and waits until it has ended. Does nothing without a worker.
  void Stop();
  bool IsRun() const { return _running != 0; }

  /// Calls `callback` once with the one tag.
  void GetAllTags(cbtag callback, void* param) const;
  void GetAllTagsEx(cbtagex callback, void* param) const;
  /// Writes the status document as dac_getinfo describes.
  void GetInfo(char* buf, size_t* size) const;

 private:
  logDac _log;                                // delivers all messages of the instance
  ym::string_<> _hostname;                    // "hostname" of the configuration: the tag's name
  ym::string_<> _name;                        // the instance's name
  ym::string_<> _cfgfile;                     // path of the configuration
  cblog _cblog = nullptr;                     // the callback that _log uses
  void* _cblogparam = nullptr;                // the parameter that _log uses
  cbaux _cbaux1 = nullptr;                    // required, never called
  void* _cbaux1param = nullptr;               // never read
  cbdata _cbdata = nullptr;                   // receives the records; may be null
  void* _cbdataparam = nullptr;               // last argument of _cbdata
  cbaux _cbaux2 = nullptr;                    // never called
  void* _cbaux2param = nullptr;               // never read
  [[maybe_unused]] char _reserved[260] = {};  // never used
  int64_t _lastcheck = 0;                     // time() of the last poll
  ym::string_<> _lastip6;                     // text of the last poll that was due for publication
  ym::string_<> _ip6;                         // text of the current poll
  dac_tagvalue _tag = {};                     // the record; its time is that of the last publication
  // compat: plain integers, shared by worker and host threads without lock or atomics. Each is one aligned word, and
  // the worker reads _stop again after the sleep of every round.
  int32_t _stop = 0;               // 1 asks the worker to end
  int32_t _running = 0;            // 1 while the worker runs; written by the worker only
  std::thread* _thread = nullptr;  // from Start to Stop

  bool checkHostname();
  void wrk_process();
  void poll(int64_t now);
  bool isDue(int64_t now) const;
  void publish(int64_t now);
};
static_assert(sizeof(ip6dnsDriver) == 1560);
