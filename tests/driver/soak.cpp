// Load and soak: four threads start and stop 1024 instances in waves on the kernel's addresses, while addresses change
// and the clock jumps. Every record that is due must arrive, byte for byte, and no other.
//
//   soak SECONDS [LOADS]     run it in a separate network namespace (scripts/soak does): it changes lo's addresses
//
// The program replaces time, getifaddrs and nanosleep. On each worker's thread it sees what the worker gets and so
// knows what is due; at the next sleep it checks what was published.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <ifaddrs.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "driver/dac.h"
#include "tests/support/fake_pages.h"
#include "tests/support/plugin.h"
#include "tests/support/size_classes.h"

namespace {

constexpr int instances = 1024, crew = 4, most_addresses = 10'000, phases = 4;
constexpr int shortest_stir = 10;  // seconds that leave time for the greatest number of addresses

std::atomic<int64_t> clock_now = 1'700'000'000;
std::atomic<int> polling = 0;  // threads inside getifaddrs
std::atomic<long> checked = 0, lost = 0, wrong = 0, surplus = 0, polls = 0;
std::atomic<long> repeated = 0;   // records of a text that had not changed
std::atomic<int> most_found = 0;  // addresses that one poll found

void raise(std::atomic<int>& most, int n) {
  for (int old = most; n > old && !most.compare_exchange_weak(old, n);) {
  }
}

// ---------------------------------------------------------------- what a worker learns, and what must come of it

/// One instance as seen from outside; touched by its worker's thread alone while it runs.
struct instance {
  std::string hostname;
  int handle = -1;
  bool runs = false;
  std::string last_text;       // of the latest poll that reached publishing
  int64_t last_published = 0;  // seconds; 0 never
  std::string due;             // text of a record that must arrive before the next sleep
  bool is_due = false;
  int64_t last_polled = 0;  // seconds; 0 never
  bool is_poll_due = false;
};

thread_local instance* me = nullptr;  // set by the worker's start message
thread_local int64_t my_now = 0;      // what time() last returned on this thread: the worker decides by it

/// The C library's own classes of addresses, unlike the plug-in's bytes.
bool is_published(const in6_addr& a) {
  if (IN6_IS_ADDR_UNSPECIFIED(&a)) return true;
  const bool local = a.s6_addr[0] == 0xfe && a.s6_addr[1] >= 0x80;
  return !IN6_IS_ADDR_LOOPBACK(&a) && !IN6_IS_ADDR_MULTICAST(&a) && !local && !IN6_IS_ADDR_V4MAPPED(&a) &&
         !IN6_IS_ADDR_V4COMPAT(&a);
}

std::string expected_text(const ifaddrs* list) {
  std::string text;
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET6) continue;
    const in6_addr& a = reinterpret_cast<const sockaddr_in6*>(i->ifa_addr)->sin6_addr;
    char one[INET6_ADDRSTRLEN];
    if (!is_published(a) || !inet_ntop(AF_INET6, &a, one, sizeof one)) continue;
    if (!text.empty()) text += ',';
    text += one;
  }
  return text.empty() ? "null" : text;
}

/// The next poll is due when the clock is ten seconds away from the latest one, in either direction.
void expect_poll(instance& x) { x.is_poll_due = std::abs(my_now - x.last_polled) >= 10; }

void learn(instance& x, std::string text) {
  if (!x.is_poll_due) ++surplus;
  x.is_poll_due = false;
  x.last_polled = my_now;
  raise(most_found, text == "null" ? 0 : 1 + static_cast<int>(std::count(text.begin(), text.end(), ',')));
  const int64_t apart = std::abs(my_now - x.last_published);
  ++polls;
  x.is_due = text != x.last_text || apart >= 120;
  if (!x.is_due) return;
  repeated += text == x.last_text ? 1 : 0;
  x.last_text = x.due = std::move(text);
  x.last_published = my_now;
}

void settle(instance& x) {
  if (x.is_due || x.is_poll_due) ++lost;
  x.is_due = x.is_poll_due = false;
}

dac_tagvalue expected_record(const instance& x) {
  dac_tagvalue r{};
  std::strncpy(r.name, x.hostname.c_str(), sizeof r.name - 1);
  std::strncpy(r.value, x.due.c_str(), sizeof r.value - 1);
  r.type = 6;
  r.len = static_cast<uint16_t>(std::min(x.due.size(), sizeof r.value - 1));
  return r;
}

void on_log(const char* /*name*/, int /*level*/, const char* text, int /*flag*/, void* param) {
  if (std::string_view(text) == "start wrk_process success.") me = static_cast<instance*>(param);
}

void on_data(const dac_tagvalue* records, int count, void* param) {
  instance& x = *static_cast<instance*>(param);
  if (!x.is_due) {
    ++surplus;
    return;
  }
  const dac_tagvalue expected = expected_record(x);
  if (count != 1 || std::memcmp(records, &expected, sizeof expected) != 0) ++wrong;
  ++checked;
  x.is_due = false;
}

void on_aux(void* /*param*/) {}

}  // namespace

// ---------------------------------------------------------------- the C library's, as the worker meets it

extern "C" time_t time(time_t* out) noexcept {
  my_now = clock_now;
  if (me) expect_poll(*me);
  if (out) *out = my_now;
  return my_now;
}

extern "C" int getifaddrs(ifaddrs** list) noexcept {
  static auto* real = reinterpret_cast<int (*)(ifaddrs**)>(dlsym(RTLD_NEXT, "getifaddrs"));
  ++polling;
  const int result = real(list);
  --polling;
  if (me) learn(*me, result == 0 ? expected_text(*list) : "null");
  return result;
}

extern "C" int nanosleep(const timespec* request, timespec* remainder) {
  if (me) settle(*me);
  return static_cast<int>(syscall(SYS_nanosleep, request, remainder));
}

// ---------------------------------------------------------------- addresses on lo, by rtnetlink

namespace {

class addresses {
 public:
  addresses() : _socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
    if (_socket < 0) throw std::runtime_error("no netlink socket");
    link(IFF_UP);
  }
  ~addresses() { close(_socket); }
  addresses(const addresses&) = delete;
  addresses& operator=(const addresses&) = delete;

  /// From now on lo has 2001:db8::1:0 to 2001:db8::1:(n - 1) and no other of these.
  void set(int n) {
    for (; _count < n; ++_count) change(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, _count);
    for (; _count > n; --_count) change(RTM_DELADDR, 0, _count - 1);
  }
  /// Removes them all at once: a link that goes down loses its addresses.
  void clear() {
    link(0);
    link(IFF_UP);
    _changes += _count;
    _count = 0;
  }
  int count() const { return _count; }
  /// Added and removed so far.
  long changes() const { return _changes; }

 private:
  int _socket;
  int _count = 0;
  long _changes = 0;
  uint32_t _sequence = 0;

  void link(unsigned flags) {
    struct {
      nlmsghdr head;
      ifinfomsg link;
    } m{};
    m.head = {sizeof m, RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
    m.link.ifi_index = 1;
    m.link.ifi_flags = flags;
    m.link.ifi_change = IFF_UP;
    ask(&m, sizeof m);
  }

  void change(uint16_t type, uint16_t flags, int i) {
    struct {
      nlmsghdr head;
      ifaddrmsg address;
      rtattr attribute;
      in6_addr ip;
    } m{};
    m.head = {sizeof m, type, static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags), ++_sequence, 0};
    m.address = {AF_INET6, 128, IFA_F_NODAD, 0, 1};
    m.attribute = {sizeof(rtattr) + sizeof(in6_addr), IFA_LOCAL};
    inet_pton(AF_INET6, "2001:db8::1:0", &m.ip);
    m.ip.s6_addr[14] = static_cast<uint8_t>(i >> 8);
    m.ip.s6_addr[15] = static_cast<uint8_t>(i);
    ask(&m, sizeof m);
    ++_changes;
  }

  void ask(const void* message, size_t n) const {
    struct {
      nlmsghdr head;
      nlmsgerr error;
      char rest[512];
    } reply{};
    if (send(_socket, message, n, 0) < 0 || recv(_socket, &reply, sizeof reply, 0) < 0)
      throw std::runtime_error("netlink is silent");
    if (reply.error.error != 0)
      throw std::runtime_error(std::string("addresses of lo: ") + std::strerror(-reply.error.error));
  }
};

// ---------------------------------------------------------------- the crew

std::atomic<bool> over = false, held = false;
std::atomic<int> running = 0, most_running = 0, starts = 0;

void pause(int milliseconds) { poll(nullptr, 0, milliseconds); }

/// One of the four threads that start and stop, and the instances that are its own.
class hand {
 public:
  hand(library& lib, const std::string& dir, int index, int count) : _lib(lib), _random(static_cast<unsigned>(index)) {
    for (int i = 0; i < count; ++i) {
      auto x = std::make_unique<instance>();
      x->hostname = "host-" + std::to_string(index) + "-" + std::to_string(i) + (i % 7 ? "" : std::string(80, 'x'));
      _files.push_back(dir + "/" + std::to_string(index) + "-" + std::to_string(i) + ".conf");
      std::ofstream(_files.back()) << "hostname = " << x->hostname << "\n";
      _own.push_back(std::move(x));
    }
  }

  /// No thread stops an instance before `all` threads have started theirs, so that all instances run once.
  void work(std::barrier<>& all) {
    start_all();
    all.arrive_and_wait();
    while (!over) {
      pause(below(1000));  // half a second between waves
      if (held) continue;
      for (int i = below(20); i > 0 && !over; --i) stop(below(size()));
      for (int i = below(10); i > 0; --i) destroy(below(size()));
      if (below(3) == 0) start_all();
      for (int i = below(100); i > 0; --i) start(below(size()));
    }
  }

  /// Stops and destroys all, in parallel like a host: each stop waits for a sleeping worker.
  void finish() {
    constexpr int at_once = 32;
    std::atomic<int> next = 0;
    std::vector<std::thread> stoppers;
    stoppers.reserve(at_once);
    for (int n = 0; n < at_once; ++n) {
      stoppers.emplace_back([&] {
        for (int i; (i = next++) < size();) {
          stop(i);
          destroy(i);
        }
      });
    }
    for (std::thread& t : stoppers) t.join();
  }

 private:
  library& _lib;
  std::mt19937 _random;
  std::vector<std::unique_ptr<instance>> _own;
  std::vector<std::string> _files;

  int size() const { return static_cast<int>(_own.size()); }
  int below(int n) { return std::uniform_int_distribution(0, n - 1)(_random); }
  instance& at(int i) { return *_own[static_cast<size_t>(i)]; }

  void start_all() {
    for (int i = 0; i < size(); ++i) start(i);
  }

  void create(int i) {
    instance& x = at(i);
    x.handle = _lib.create("soak", _files[static_cast<size_t>(i)].c_str(), on_log, &x, on_aux, nullptr, on_data, &x,
                           nullptr, nullptr);
    if (x.handle < 0) throw std::runtime_error("an instance was refused");
  }
  void start(int i) {
    instance& x = at(i);
    if (x.runs) return;
    if (x.handle < 0) create(i);
    _lib.start(x.handle);
    x.runs = true;
    ++starts;
    raise(most_running, ++running);
  }
  void stop(int i) {
    instance& x = at(i);
    if (!x.runs) return;
    _lib.stop(x.handle);
    settle(x);
    x.runs = false;
    --running;
  }
  void destroy(int i) {
    instance& x = at(i);
    if (x.runs || x.handle < 0) return;
    _lib.destroy(x.handle);
    x.handle = -1;
    for (std::string* text : {&x.last_text, &x.due}) std::string().swap(*text);  // their room too
    x.last_published = x.last_polled = 0;
  }
};

// ---------------------------------------------------------------- what the process holds

struct usage {
  long resident_kb = 0, highest_kb = 0, pools_kb = 0, pools_resident_kb = 0;
  long chunks_too_many = 0;
  long descriptors = 0, threads = 0, mappings = 0;
};

/// The mappings that the pools hold at most when no block is in use, by length: the first chunk and two later ones of
/// each class, and the self heap's. A leak of one block per round soon needs more.
std::map<size_t, long> most_mapped() {
  std::map<size_t, long> most = {{size_classes::whole_pages(524288), 1}};
  for (const size_classes::row& c : size_classes::all) {
    most[size_classes::whole_pages((c.size + 8) * c.first)] += 1;
    most[size_classes::whole_pages((c.size + 8) * c.blocks)] += 2;
  }
  return most;
}

long resident_pages(void* at, size_t length) {
  std::vector<unsigned char> pages(length / static_cast<size_t>(sysconf(_SC_PAGESIZE)));
  if (mincore(at, length, pages.data()) != 0) throw std::runtime_error("mincore");
  return std::count_if(pages.begin(), pages.end(), [](unsigned char p) { return (p & 1) != 0; });
}

long entries(const char* directory) {
  const std::filesystem::directory_iterator begin(directory);
  return std::distance(begin, std::filesystem::directory_iterator());
}

usage measure() {
  malloc_trim(0);  // releases what this program's texts have left in the C library's heap
  usage u;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:"))
      u.resident_kb = std::stol(line.substr(6));
    else if (line.starts_with("VmHWM:"))
      u.highest_kb = std::stol(line.substr(6));
  std::map<size_t, long> room = most_mapped();
  for (const auto& [at, length] : fake_pages::live()) {
    if (--room[length] < 0) ++u.chunks_too_many;
    u.pools_kb += static_cast<long>(length / 1024);
    u.pools_resident_kb += resident_pages(at, length) * sysconf(_SC_PAGESIZE) / 1024;
  }
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) ++u.mappings;
  u.descriptors = entries("/proc/self/fd");
  u.threads = entries("/proc/self/task");
  return u;
}

void print(const char* what, const usage& u) {
  std::printf(
      "%-24s resident %6ld kB (highest %7ld), pools %6ld of %6ld kB, descriptors %2ld, threads %2ld, mappings %3ld\n",
      what, u.resident_kb, u.highest_kb, u.pools_resident_kb, u.pools_kb, u.descriptors, u.threads, u.mappings);
}

// ---------------------------------------------------------------- the two phases

/// Waits until no worker reads the interface list, at most 20 seconds: others may just have started.
void settle() {
  for (int i = 0; i < 2000 && (polling != 0 || i < 20); ++i) pause(10);
}

/// Adds the greatest number of addresses for the instances that start within three seconds, the first time until one of
/// them has found them all, at most half a minute. While addresses are added, no instance starts and the clock is
/// stopped: the C library reads a list again if it changed meanwhile, and many threads that do so slow the adding.
void peak(addresses& lo) {
  held = true;
  settle();
  lo.set(most_addresses);
  held = false;
  pause(3000);
  for (int i = 0; i < 300 && most_found < most_addresses; ++i) pause(100);
  lo.clear();
}

long jumps = 0;

/// Changes addresses and clock for `seconds`. Adds the greatest number of addresses once, in the middle, unless the
/// time is shorter than shortest_stir.
void stir(addresses& lo, int seconds) {
  std::mt19937 random(1);
  const auto begin = std::chrono::steady_clock::now();
  const auto below = [&](int n) { return std::uniform_int_distribution(0, n - 1)(random); };
  bool peaked = false;
  for (int shown = -1;;) {
    const auto passed = std::chrono::steady_clock::now() - begin;
    const auto second = static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(passed).count());
    if (second >= seconds) return;
    if (second != shown) {
      std::fprintf(stderr, "\r%5d s  running %4d  addresses %5d  polls %8ld  checked %8ld  lost %ld  wrong %ld ",
                   second, running.load(), lo.count(), polls.load(), checked.load(), lost.load(), wrong.load());
      shown = second;
    }
    // In every second quarter no address changes, so that workers poll unchanged addresses.
    const bool quiet = second * 4 / seconds % 2 == 1;
    if (!peaked && seconds >= shortest_stir && second >= seconds / 2) {
      clock_now += 120;  // unchanged values are due again
      peak(lo);
      peaked = true;
    } else if (!quiet && below(20) == 0) {
      lo.set(below(4) == 0 ? 0 : below(100));
    }
    constexpr std::array ways = {-4000, -130, -119, -60, -10, 119, 120, 1000};
    const bool jump = below(40) == 0;
    jumps += jump ? 1 : 0;
    clock_now += jump ? ways[static_cast<size_t>(below(ways.size()))] : below(quiet ? 2 : 5) == 0 ? 1 : 0;
    pause(50);  // the clock runs about four times as fast as the machine's, in quiet quarters ten times
  }
}

// ---------------------------------------------------------------- the verdict

/// Whether all requirements hold. Prints those that do not.
class verdict {
 public:
  void require(bool so, const char* what) {
    if (so) return;
    _good = false;
    std::printf("failed: %s\n", what);
  }
  bool is_good() const { return _good; }

 private:
  bool _good = true;
};

/// Requires the descriptors and threads of the beginning, and after the last phase no more memory than after the first,
/// except what the pools and the C library may cache.
void require_flat(verdict& v, const std::vector<usage>& stopped) {
  constexpr long stray_kb = 8192, stray_mappings = 32;
  const usage &begin = stopped.front(), &first = stopped.at(1), &last = stopped.back();
  const auto outside_pools = [](const usage& u) { return u.resident_kb - u.pools_resident_kb; };
  v.require(last.descriptors == begin.descriptors, "descriptors as at the beginning");
  v.require(last.threads == begin.threads, "threads as at the beginning");
  v.require(last.chunks_too_many == 0, "the pools hold at most three chunks of a class");
  v.require(outside_pools(last) <= outside_pools(first) + stray_kb,
            "resident memory outside the pools as after the first phase");
  v.require(last.mappings <= first.mappings + stray_mappings, "mappings as after the first phase");
}

bool soak(int seconds) {
  const scratch dir;
  const std::string path = dir.path("");
  addresses lo;
  std::vector<usage> stopped;  // after warming up and after each phase
  {
    library lib;
    std::vector<hand> hands;
    hands.reserve(crew);
    for (int i = 0; i < crew; ++i) hands.emplace_back(lib, path, i, instances / crew);
    const auto round = [&](int length) {
      over = false;
      std::barrier<> all(crew);
      std::vector<std::thread> threads;
      threads.reserve(crew);
      for (hand& h : hands) threads.emplace_back([&] { h.work(all); });
      stir(lo, length);
      over = true;
      for (std::thread& t : threads) t.join();
      for (hand& h : hands) h.finish();
      return measure();
    };
    stopped.push_back(round(5));  // afterwards stacks and heaps have their size
    for (int i = 0; i < phases; ++i) stopped.push_back(round(seconds / phases));
  }
  std::fputc('\n', stderr);
  std::printf("records checked %ld, %ld of them of unchanged texts, lost %ld, wrong %ld, not due %ld; polls %ld\n",
              checked.load(), repeated.load(), lost.load(), wrong.load(), surplus.load(), polls.load());
  std::printf(
      "instances started %d times, most running %d; addresses changed %ld times, most found %d; clock jumps %ld\n",
      starts.load(), most_running.load(), lo.changes(), most_found.load(), jumps);
  for (size_t i = 0; i < stopped.size(); ++i)
    print(i == 0 ? "all stopped, warmed up" : ("all stopped, phase " + std::to_string(i)).c_str(), stopped[i]);
  verdict v;
  v.require(lost == 0, "no record and no poll is lost");
  v.require(wrong == 0, "each record is right, byte for byte");
  v.require(surplus == 0, "each record and each poll was due");
  v.require(checked >= instances && repeated > 0, "there are records to check, some of unchanged texts");
  v.require(polls > checked, "some polls find nothing to publish");
  v.require(most_running == instances && starts > instances, "all instances run at a time, and start again");
  v.require(most_found == most_addresses, "the greatest number of addresses is found");
  v.require(lo.changes() > 2 * most_addresses && jumps > 0, "addresses and clock change");
  require_flat(v, stopped);
  return v.is_good();
}

/// Loads, uses and unloads the library, which deletes the remaining instances.
bool reload(int times) {
  const scratch dir;
  const std::string file = dir.file("hostname = h1\n");
  const auto load = [&](int n) {
    for (int i = 0; i < n; ++i) {
      library lib;
      instance x;
      const auto create = [&] {
        return lib.create("soak", file.c_str(), on_log, &x, on_aux, nullptr, on_data, &x, nullptr, nullptr);
      };
      const int one = create(), two = create();
      if (one != 0 || two != 1) throw std::runtime_error("a fresh library does not count from 0");
    }
    return measure();
  };
  const usage first = load(times / 100 + 1), last = load(times);
  print("after the first loads", first);
  print("after all the loads", last);
  std::printf("library loaded and unloaded %d times\n", times);
  verdict v;
  v.require(last.mappings == first.mappings, "mappings as after the first loads");
  v.require(last.descriptors == first.descriptors, "descriptors as after the first loads");
  v.require(last.resident_kb <= first.resident_kb + 256, "resident memory as after the first loads");
  v.require(!library::is_loaded(), "the library is unloaded");
  return v.is_good();
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60, loads = argc > 2 ? std::atoi(argv[2]) : 10'000;
  if (loads < 1 || seconds < phases * shortest_stir) {
    std::fprintf(stderr, "usage: soak [SECONDS [LOADS]], %d SECONDS at least\n", phases * shortest_stir);
    return 2;
  }
  try {
    const bool loads_flat = reload(loads), records_right = soak(seconds);
    const bool good = loads_flat && records_right;
    std::printf("%s\n", good ? "soak: good" : "soak: FAILED");
    return good ? 0 : 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "soak: %s\n", e.what());
    return 1;
  }
}
