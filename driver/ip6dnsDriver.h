// One driver instance: its configuration, its life, its worker thread and what it tells the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <thread>

#include "com/ymlib3/ym_string"
#include "driver/dac.h"
#include "driver/logDac.h"

/// Made stopped. Nothing here locks: the host keeps calls on one instance apart where dac.h asks for it.
class ip6dnsDriver {
 public:
  ip6dnsDriver() = default;
  // kept: no worker is looked at; who deletes a running instance deletes it under the worker's feet.
  ~ip6dnsDriver() = default;
  ip6dnsDriver(const ip6dnsDriver&) = delete;
  ip6dnsDriver& operator=(const ip6dnsDriver&) = delete;

  /// Takes over dac_create's arguments and reads the configuration. False, with at most one message logged, when an
  /// argument is missing or the configuration will not do.
  bool Create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux aux1, void* aux1param,
              cbdata data, void* dataparam, cbaux aux2, void* aux2param);

  /// Reads the file's "hostname" into _hostname; false when the file cannot be opened.
  bool loadConfig(const char* path);

  /// Starts a worker, whether one runs already or not. Throws std::system_error when there is no thread to be had and
  /// std::bad_alloc when there is no memory.
  void Start();
  /// Ends the worker and waits for it; does nothing when there is none.
  void Stop();
  bool IsRun() const { return _running != 0; }

  /// Calls back once with the one tag.
  void GetAllTags(cbtag callback, void* param) const;
  void GetAllTagsEx(cbtagex callback, void* param) const;
  /// Writes the status document as dac_getinfo tells.
  void GetInfo(char* buf, size_t* size) const;

 private:
  logDac _log;                                // all messages of the instance
  ym::string_<> _hostname;                    // "hostname" of the configuration: the tag's name
  ym::string_<> _name;                        // the instance's name
  ym::string_<> _cfgfile;                     // path of the configuration
  cblog _cblog = nullptr;                     // the same that _log holds
  void* _cblogparam = nullptr;                // the same that _log holds
  cbaux _cbaux1 = nullptr;                    // must be given, never called
  void* _cbaux1param = nullptr;               // never read
  cbdata _cbdata = nullptr;                   // receives the records; may be null
  void* _cbdataparam = nullptr;               // its last argument
  cbaux _cbaux2 = nullptr;                    // never called
  void* _cbaux2param = nullptr;               // never read
  [[maybe_unused]] char _reserved[260] = {};  // never used
  int64_t _lastcheck = 0;                     // time() of the last look for addresses
  ym::string_<> _lastip6;                     // what the last poll found
  ym::string_<> _ip6;                         // what this poll finds
  dac_tagvalue _tag = {};                     // the record; its time is that of the last publication
  // kept: plain integers, shared by worker and host threads without lock or atomics; each is written whole, and the
  // sleep in every round makes the worker read _stop anew.
  int32_t _stop = 0;               // 1 asks the worker to end
  int32_t _running = 0;            // 1 while the worker runs; the worker's own
  std::thread* _thread = nullptr;  // from Start to Stop

  bool checkHostname();
  void wrk_process();
  void poll(int64_t now);
  bool isDue(int64_t now) const;
  void publish(int64_t now);
};
static_assert(sizeof(ip6dnsDriver) == 1560);
