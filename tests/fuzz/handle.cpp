// The handle table, compared with a map and the rule for the next handle.
//   input: steps, each: what | a number
#include "com/ymlib3/ym_handle"

#include <climits>
#include <map>

#include "tests/fuzz/reader.h"
#include "tests/fuzz/target.h"

namespace {

using fuzz::require;

struct refusal {};

struct object {
  static inline int alive = 0;
  static inline bool refused = false;

  object() {
    if (refused) throw refusal();
    ++alive;
  }
  ~object() { --alive; }
  object(const object&) = delete;
  object& operator=(const object&) = delete;
};

class trial {
 public:
  void create(bool refuse);
  void del(int id);
  void get(int id);
  void check();

  /// The first existing handle from `id` on, if there is one.
  int existing(int id) const {
    const auto it = _objects.lower_bound(id);
    return it == _objects.end() ? id : it->first;
  }

 private:
  ym::handle<object> _table;
  std::map<int, const object*> _objects;
  int _last = -1;

  // Moves `_last` to the next handle.
  void advance() {
    _last = _last == 2048 ? 1 : _last + 1;
    while (_objects.contains(_last)) _last = _last == 2048 ? 1 : _last + 1;
  }
};

void trial::create(bool refuse) {
  const bool full = _objects.size() == 1024;
  if (!full) advance();
  object::refused = refuse;
  try {
    const int id = _table.create();
    require(full ? id == -1 : id == _last && !refuse, "the next free handle is returned while there is room");
    if (!full) _objects[id] = _table.get(id);
  } catch (const refusal&) {
    require(!full && refuse, "exceptions of the constructor are passed on");
  }
}

void trial::del(int id) {
  const bool known = _objects.erase(id) != 0;
  require(_table.del(id) == (known ? 0 : -1), "a known handle is removed");
  require(object::alive == static_cast<int>(_objects.size()), "its object is destroyed");
  get(id);
}

void trial::get(int id) {
  const auto it = _objects.find(id);
  require(_table.get(id) == (it == _objects.end() ? nullptr : it->second), "a handle finds its object");
}

void trial::check() {
  require(_table.is_valid(), "the table is valid");
  require(object::alive == static_cast<int>(_objects.size()), "each handle has an object");
}

constexpr int strange[] = {-1, 2049, 5000, INT_MIN, INT_MAX, -2048, 1024, 0, 2048, 3072};

void step(trial& s, fuzz::reader& in) {
  const uint8_t what = in.byte();
  const auto n = static_cast<int>(in.number(2) % 2049);
  switch (what % 8) {
    case 0:
      s.create(false);
      break;
    case 1:
      s.create(true);
      break;
    case 2:
      for (int i = 0; i < n; ++i) s.create(false);
      break;
    case 3:
      s.del(s.existing(n));
      break;
    case 4:
      for (int i = what; i < n; i += 1 + what / 8) s.del(s.existing(i));
      break;
    case 5:
      s.del(n);
      break;
    case 6:
      s.get(s.existing(n));
      s.get(n);
      break;
    default:
      s.del(in.pick(strange));
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::reader in(data, size);
  {
    trial s;
    for (int steps = 0; !in.empty() && steps < 64; ++steps) {
      step(s, in);
      s.check();
    }
  }
  require(object::alive == 0, "the table destroys its objects");
  return 0;
}
