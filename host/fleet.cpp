#include "host/fleet.h"

#include <stdexcept>
#include <system_error>
#include <utility>

#include "host/names.h"
#include "host/side_by_side.h"

namespace {

// Each stop waits for the end of its worker's round.
void stop_all(const std::vector<instance*>& instances) {
  side_by_side(instances.size(), [&](size_t k) { instances[k]->stop(); });
}

}  // namespace

fleet::fleet(const plugin& p, event_queue& q, const std::vector<std::string>& files) : _plugin(p), _queue(q) {
  const std::vector<std::string> names = instance_names(files);
  for (size_t i = 0; i < files.size(); ++i) _slots.push_back({files[i], names[i], nullptr, nullptr});
}

bool fleet::prepare(size_t i, std::string& reason) {
  slot& s = _slots[i];
  s.next = instance::make(_plugin, {_queue, i}, s.name, s.file, reason);
  return s.next != nullptr;
}

void fleet::take_over(const std::vector<size_t>& files) {
  std::vector<instance*> old;
  for (const size_t i : files)
    if (_slots[i].now) old.push_back(_slots[i].now.get());
  stop_all(old);
  for (const size_t i : files) _slots[i].now = std::move(_slots[i].next);
}

// Told as the host's own exception: the plug-in's may not outlive the plug-in.
void fleet::start(size_t i) {
  try {
    _slots[i].now->start();
  } catch (const std::system_error& e) {
    throw std::runtime_error(_slots[i].file + ": cannot be started: " + e.what());
  }
}

void fleet::stop() {
  std::vector<instance*> all;
  for (const slot& s : _slots)
    if (s.now) all.push_back(s.now.get());
  stop_all(all);
}

void fleet::clear() {
  for (slot& s : _slots) s.now.reset();
}
