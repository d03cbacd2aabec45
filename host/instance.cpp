#include "host/instance.h"

#include <span>
#include <utility>

namespace {

// The plug-in insists on this callback and never calls it.
void never_called(void* /*param*/) {}

void collect(const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
  static_cast<std::vector<tag>*>(param)->push_back({name, type, flag, text1, text2});
}

}  // namespace

std::unique_ptr<instance> instance::make(const plugin& p, event_sink sink, const std::string& name,
                                         const std::string& file, std::string& reason) {
  std::unique_ptr<instance> i(new instance(p, sink));
  i->_handle = p.create(name.c_str(), file.c_str(), on_log, i.get(), never_called, nullptr, on_data, i.get(),
                        never_called, nullptr);
  if (i->_handle >= 0) return i;
  reason = std::move(i->_refusal);
  return nullptr;
}

instance::~instance() {
  if (_handle < 0) return;
  _plugin.stop(_handle);
  _plugin.destroy(_handle);
}

void instance::start() { _plugin.start(_handle); }
void instance::stop() { _plugin.stop(_handle); }

std::vector<tag> instance::tags() const {
  std::vector<tag> all;
  _plugin.getalltagsex(_handle, collect, &all);
  return all;
}

// The size that comes back is one short of the text's length, and the length alone is what must fit: see dac.h.
std::string instance::info() const {
  std::string text(1, '\0');
  size_t n = 0;
  _plugin.getinfo(_handle, text.data(), &n);
  text.resize(n + 2);
  n += 1;
  _plugin.getinfo(_handle, text.data(), &n);
  text.resize(n + 1);
  return text;
}

// Until dac_create has returned, no other thread knows this instance: `_refusal` needs no lock.
void instance::on_log(const char* /*name*/, int level, const char* text, int /*flag*/, void* param) {
  auto* i = static_cast<instance*>(param);
  if (i->_handle < 0 && level == DAC_LEVEL_FAILURE) i->_refusal = text;
  i->_sink.queue.push({wall_clock::now(), i->_sink.index, message{level, text}});
}

void instance::on_data(const dac_tagvalue* records, int count, void* param) {
  const auto* i = static_cast<const instance*>(param);
  for (const dac_tagvalue& r : std::span(records, static_cast<size_t>(count)))
    i->_sink.queue.push({wall_clock::now(), i->_sink.index, r});
}
