#include "driver/ip6dnsDriver.h"

#include <strings.h>

#include <cstring>
#include <string_view>

#include "com/ymlib3/ym_config"
#include "com/ymlib3/ym_json"
#include "driver/publicip6.h"

namespace {

constexpr int failure = 10;  // log levels
constexpr int progress = 30;

constexpr timespec round_pause = {0, 100'000'000};
constexpr uint64_t poll_seconds = 10;
constexpr uint64_t quiet_tenths = 1190;  // an unchanged text is published again when more than this has passed
constexpr char no_address[] = "null";
constexpr char tag_text[] = "ipv6 address";
constexpr int tag_flag = 1;

bool isText(const char* s) { return s && *s; }

// Compares the whole key, in any case. Comparing the length rejects a key that continues after a zero byte.
bool isHostnameKey(const ym::string_<>& key) {
  constexpr std::string_view name = "hostname";
  return key.size() == name.size() && strncasecmp(key.c_str(), name.data(), name.size()) == 0;
}

// True if two times differ by at most `most`, in either direction.
// compat: one unsigned comparison, so that a clock set back counts like one set ahead.
bool isWithin(int64_t a, int64_t b, uint64_t most) {
  return static_cast<uint64_t>(a) - static_cast<uint64_t>(b) + most <= 2 * most;
}

int64_t tenths(int64_t seconds) { return static_cast<int64_t>(10 * static_cast<uint64_t>(seconds)); }

// Copies `text`, cut to the field's size minus one, into a zeroed field.
template <size_t SIZE>
void copyText(char (&field)[SIZE], const char* text) {
  std::memcpy(field, text, strnlen(text, SIZE - 1));
}

}  // namespace

// ---------------------------------------------------------------- configuration

bool ip6dnsDriver::Create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux aux1, void* aux1param,
                          cbdata data, void* dataparam, cbaux aux2, void* aux2param) {
  if (!isText(name) || !isText(cfgfile) || !aux1) return false;
  _name = name;
  _cfgfile = cfgfile;
  _cblog = log;
  _cblogparam = logparam;
  _cbaux1 = aux1;
  _cbaux1param = aux1param;
  _cbdata = data;
  _cbdataparam = dataparam;
  _cbaux2 = aux2;
  _cbaux2param = aux2param;
  _log.bind(name, log, logparam);
  if (!loadConfig(_cfgfile.c_str())) {
    _log.add(failure, "load ip6dns driver config %s failed", _cfgfile.c_str());
    return false;
  }
  return checkHostname();
}

bool ip6dnsDriver::loadConfig(const char* path) {
  ym::rstream_file file;
  if (!file.open(path)) return false;
  const auto onKey = [this](const ym::string_<>& /*section*/, const ym::string_<>& key, const ym::string_<>& value) {
    if (isHostnameKey(key)) _hostname = value;  // compat: the last one counts, even if it is empty
    return 0;
  };
  return ym::config<ym::string_<>>().scan(&file, onKey, 0);
}

// dachost recognises these messages by their first words, to add what helps.
bool ip6dnsDriver::checkHostname() {
  if (_hostname.size() == 0) {
    _log.add(failure, "not config hostname in %s", _cfgfile.c_str());
    return false;
  }
  const char* p = _hostname.c_str();
  for (const char* end = p + _hostname.size(); p != end; ++p) {
    if (*p != '\'' && *p != '"' && *p != '(' && *p != ')' && *p != ':') continue;
    _log.add(failure, "hostname contains illegal characters in %s", _cfgfile.c_str());
    return false;
  }
  return true;
}

// ---------------------------------------------------------------- start and stop

void ip6dnsDriver::Start() {
  _stop = 0;
  // compat: the times of the last poll and publication stay, so a restarted worker continues their intervals.
  // compat: replaces an existing thread object without joining it; its worker continues to run.
  _thread = new std::thread([this] { wrk_process(); });
}

void ip6dnsDriver::Stop() {
  if (!_thread) return;
  _stop = 1;
  _thread->join();
  delete _thread;
  _thread = nullptr;
  _log.add(progress, "stop wrk_process success.");
}

// ---------------------------------------------------------------- worker

void ip6dnsDriver::wrk_process() {
  _running = 1;
  _log.add(progress, "start wrk_process success.");
  while (_stop == 0) {
    nanosleep(&round_pause, nullptr);  // compat: does not resume an interrupted sleep
    const int64_t now = time(nullptr);
    if (!isWithin(now, _lastcheck, poll_seconds - 1)) poll(now);
  }
  _stop = 0;
  _running = 0;
}

void ip6dnsDriver::poll(int64_t now) {
  _lastcheck = now;
  _ip6.clear();
  if (getPublicIp6(_ip6) < 0) {
    _log.add(failure, "get ipv6 address failed.");
    _ip6 = no_address;
  } else if (_ip6.size() == 0) {
    _ip6 = no_address;
  }
  if (!isDue(now)) return;
  if (_cbdata) publish(now);
  _lastip6 = _ip6;  // compat: without a callback too
}

bool ip6dnsDriver::isDue(int64_t now) const {
  return std::strcmp(_ip6.c_str(), _lastip6.c_str()) != 0 || !isWithin(tenths(now), _tag.time, quiet_tenths);
}

void ip6dnsDriver::publish(int64_t now) {
  _tag = {};
  copyText(_tag.name, _hostname.c_str());
  _tag.type = DAC_TYPE_TEXT;
  copyText(_tag.value, _ip6.c_str());
  _tag.len = static_cast<uint16_t>(std::strlen(_tag.value));
  _cbdata(&_tag, 1, _cbdataparam);
  // compat: set after the callback, so the host always reads 0. The worker reads it as the time of the publication.
  _tag.time = tenths(now);
}

// ---------------------------------------------------------------- queries

void ip6dnsDriver::GetAllTags(cbtag callback, void* param) const {
  callback(_hostname.c_str(), DAC_TYPE_TEXT, tag_flag, param);
}

void ip6dnsDriver::GetAllTagsEx(cbtagex callback, void* param) const {
  callback(_hostname.c_str(), DAC_TYPE_TEXT, tag_flag, "", tag_text, param);
}

// compat: compares `*size` with the length but copies length + 1 bytes, and returns the length minus one.
void ip6dnsDriver::GetInfo(char* buf, size_t* size) const {
  ym::string_<> doc(256);
  int members = 0;
  const char* status = IsRun() ? "running" : "stop";
  doc.push_back('{');
  ym::js::out_jstring(members, "status", status, std::strlen(status), doc);
  ym::js::out_jstring(members, "host", _hostname.c_str(), _hostname.size(), doc);
  doc.push_back('}');
  *buf = 0;
  if (*size >= doc.size()) std::memcpy(buf, doc.c_str(), doc.size() + 1);
  *size = doc.size() - 1;
}
