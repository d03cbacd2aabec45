#include "host/instances/instance.h"

#include <span>
#include <utility>

#include "host/display/text.h"
#include "host/instances/config_file.h"

namespace {

void never_called(void* /*param*/) {}

void collect(const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
  static_cast<std::vector<tag>*>(param)->push_back({name, type, flag, text1, text2});
}

}  // namespace

std::unique_ptr<instance> instance::make(const plugin& p, const std::string& name, const std::string& file, sink s) {
  if (const std::string error = unreadable(file); !error.empty()) {
    s(message{DAC_LEVEL_FAILURE, error});
    return nullptr;
  }
  std::unique_ptr<instance> i(new instance(p, std::move(s)));
  i->_handle = p.create(name.c_str(), file.c_str(), on_log, i.get(), never_called, nullptr, on_data, i.get(),
                        never_called, nullptr);
  return i->_handle < 0 ? nullptr : std::move(i);
}

instance::~instance() {
  if (_handle < 0) return;
  _plugin.stop(_handle);
  _plugin.destroy(_handle);
}

std::vector<tag> instance::tags() const {
  std::vector<tag> all;
  _plugin.getalltagsex(_handle, collect, &all);
  return all;
}

// The size that comes back is one short of the text's length; the terminator needs another byte: see dac.h.
std::string instance::info() const {
  std::string text(1, '\0');
  size_t n = 0;
  _plugin.getinfo(_handle, text.data(), &n);
  n += 2;
  text.resize(n);
  _plugin.getinfo(_handle, text.data(), &n);
  text.resize(n + 1);
  return text;
}

void instance::on_log(const char* /*name*/, int level, const char* text, int /*flag*/, void* param) {
  static_cast<const instance*>(param)->_sink(message{level, text});
}

void instance::on_data(const dac_tagvalue* records, int count, void* param) {
  for (const dac_tagvalue& r : std::span(records, static_cast<size_t>(count)))
    static_cast<const instance*>(param)->_sink(value{std::string(field(r.name)), r.type, std::string(field(r.value))});
}
