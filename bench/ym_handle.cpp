// Time of the handle table, another thread alive.
#include "com/ymlib3/ym_handle"

#include <algorithm>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/other_thread.h"
#include "bench/text.h"
#include "bench/versus.h"

namespace {

other_thread g_other;

struct object {
  uint64_t value = 1;
};

// The same contract, implemented with the standard library.
class map_handle {
 public:
  int create() {
    const std::lock_guard hold(_mtx);
    _lastid = _lastid >= 2048 ? 1 : _lastid + 1;
    while (_objects.contains(_lastid)) _lastid = _lastid >= 2048 ? 1 : _lastid + 1;
    _objects.emplace(_lastid, std::make_unique<object>());
    return _lastid;
  }
  object* get(int id) {
    const std::lock_guard hold(_mtx);
    const auto found = _objects.find(id);
    return found == _objects.end() ? nullptr : found->second.get();
  }
  int del(int id) {
    const std::lock_guard hold(_mtx);
    return _objects.erase(id) == 1 ? 0 : -1;
  }

 private:
  int _lastid = -1;
  std::mutex _mtx;
  std::unordered_map<int, std::unique_ptr<object>> _objects;
};

constexpr int queries = 1000;

template <class TABLE>
std::shared_ptr<TABLE> filled(int count) {
  auto table = std::make_shared<TABLE>();
  for (int i = 0; i < count; ++i) table->create();
  return table;
}

template <class TABLE>
work look_up(int count) {
  std::mt19937 random(seed);
  std::vector<int> ids(queries);
  for (int& id : ids) id = static_cast<int>(random() % static_cast<unsigned>(count));
  return [table = filled<TABLE>(count), ids] {
    uint64_t sum = 0;
    for (const int id : ids) sum += table->get(id)->value;
    return sum;
  };
}

template <class TABLE>
work make_and_delete(int others) {
  return [table = filled<TABLE>(others)] {
    uint64_t sum = 0;
    for (int i = 0; i < queries; ++i) {
      const int id = table->create();
      sum += static_cast<uint64_t>(id) + static_cast<uint64_t>(table->del(id));
    }
    return sum;
  };
}

}  // namespace

void enter() {
  using table = ym::handle<object>;
  for (const int count : {1, 1024})
    versus("handle table, look up 1 of " + std::to_string(count), "unordered_map", queries, look_up<table>(count),
           look_up<map_handle>(count));
  versus("handle table, create and delete with 100", "unordered_map", queries, make_and_delete<table>(100),
         make_and_delete<map_handle>(100));
}
