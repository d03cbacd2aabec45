// The layer between a host and a plug-in: passes every call on unchanged and reports what dac.h forbids.
//   host ──dac_*──► call: counts on the instance ──► plug-in ──► on_log, on_data, list_tags ──► the host's callbacks
// A call takes no lock here and allocates nothing.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "driver/dac.h"

namespace {

// Relaxed: acquire and release would order the host's threads and so hide their races from a thread sanitizer.
template <class T>
struct relaxed {
  std::atomic<T> value;
  operator T() const { return value.load(std::memory_order_relaxed); }
  void set(T v) { value.store(v, std::memory_order_relaxed); }
  T exchange(T v) { return value.exchange(v, std::memory_order_relaxed); }
  T add(T n) { return value.fetch_add(n, std::memory_order_relaxed); }
  bool replace(T old, T v) { return value.compare_exchange_strong(old, v, std::memory_order_relaxed); }
};

template <class F>
struct at_exit {
  F function;
  explicit at_exit(F f) : function(f) {}
  ~at_exit() { function(); }
};

const void* address(auto* function) { return reinterpret_cast<const void*>(function); }

using misuse = std::pair<const char*, const char*>;  // its name, and the explanation with a remedy
constexpr misuse
    unknown_handle = {"unknown-handle",
                      "no such instance, or it was destroyed; use a handle only from dac_create to dac_destroy"},
    destroy_running = {"destroy-running", "the worker still uses the instance; call dac_stop before dac_destroy"},
    destroy_in_call = {"destroy-in-call", "another call on the instance has not returned; wait for it"},
    start_twice = {"start-twice", "a worker already runs and would never be joined; call dac_stop first"},
    stop_twice = {"stop-twice", "another dac_stop has not returned; stop an instance from one thread at a time"},
    inside_callback = {"inside-callback",
                       "called by a callback of the instance, which it waits for; return from the callback first"},
    null_callback = {"null-callback", "the callback is required; pass a function, even an empty one"},
    null_text = {"null-text", "name and cfgfile are required; pass texts of at least one character"},
    small_buffer = {"small-buffer",
                    "the text and its terminator do not fit; pass a buffer of the returned *size + 2 bytes"},
    size_as_length = {"size-as-length", "*size is the text's length minus one; pass *size + 2 bytes"},
    slow_callback = {"slow-callback",
                     "took more than 1 s, which delays the next poll and dac_stop; copy the record and return"},
    exception = {"exception", "an exception left the callback; catch it inside"},
    late_record = {"late-record", "a record was used after its callback returned; copy it inside the callback"},
    instance_left = {"instance-left", "an instance exists at unload or exit; call dac_destroy first"},
    thread_left = {"thread-left",
                   "a worker runs or a call has not returned at unload or exit; stop the worker, wait for the call"},
    many_instances = {"many-instances", "more than 1,000, and dac_create fails above 1,024; use several processes"};

const char* const log_file = std::getenv("DAC_CHECK_LOG");
const bool aborts = std::getenv("DAC_CHECK_ABORT") && std::strcmp(std::getenv("DAC_CHECK_ABORT"), "1") == 0;
relaxed<uintptr_t> reported[1024];  // kind and location of each report

// `entry` names the entry point or the callback, `place` is an address in the host or null. May be called in a signal
// handler.
void report(const misuse& m, const char* entry, int handle, const void* place) {
  const uintptr_t key = reinterpret_cast<uintptr_t>(place) * 4099 + reinterpret_cast<uintptr_t>(&m);
  for (relaxed<uintptr_t>& r : reported) {
    if (r.replace(0, key)) break;
    if (r == key) return;
  }
  const at_exit restore([before = errno] { errno = before; });
  Dl_info module = {};
  if (!place || dladdr(place, &module) == 0) module.dli_fname = "";
  char line[4608];
  std::snprintf(line, sizeof line, "dac-check: %s: %s, handle %d, thread %d, at %s+0x%tx: %s\n", m.first, entry, handle,
                gettid(), module.dli_fname, static_cast<const char*>(place) - static_cast<char*>(module.dli_fbase),
                m.second);
  const int file = log_file ? open(log_file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666) : -1;
  // One write, so that lines of several threads do not mix. Ignores a failed write.
  if (write(file < 0 ? STDERR_FILENO : file, line, std::strlen(line)) < 0) errno = 0;
  if (file >= 0) close(file);
  if (aborts) std::abort();
}

// The host gets a copy of the records, which becomes unreadable when the callback returns. A later use is reported, and
// the copy is filled with `poison`, so that the host continues. Covers the latest 1024 copies.
struct loan {
  std::atomic<bool> taken;
  relaxed<int> handle;
  relaxed<const void*> callback;
} loans[1024];
constexpr ptrdiff_t loan_size = 65536;  // whole pages on every machine; more records than that are not copied
constexpr size_t memory_size = std::size(loans) * loan_size;
relaxed<unsigned> last_loan;
relaxed<char*> memory;  // of all loans; mapped for the first one, so that a process without records has no mapping
struct sigaction handler_before;
constexpr dac_tagvalue poison = {"used-after-callback", 0, {}, DAC_TYPE_TEXT, {}, 19, "used-after-callback"};

dac_tagvalue* copy_of(const loan* l) { return reinterpret_cast<dac_tagvalue*>(memory + (l - loans) * loan_size); }

void on_fault(int number, siginfo_t* info, void* context) {
  const auto offset = static_cast<size_t>(static_cast<char*>(info->si_addr) - memory);
  if (info->si_code > 0 && offset < memory_size) {
    const loan* l = &loans[offset / loan_size];
    report(late_record, "data callback", l->handle, l->callback);
    if (l->taken) return;  // another thread is already making it readable
    mprotect(copy_of(l), loan_size, PROT_READ | PROT_WRITE);
    return static_cast<void>(std::fill_n(copy_of(l), loan_size / sizeof poison, poison));
  }
  if (handler_before.sa_handler != SIG_DFL && handler_before.sa_handler != SIG_IGN)
    return handler_before.sa_sigaction(number, info, context);  // a handler that takes only the number ignores the rest
  sigaction(number, &handler_before, nullptr);
  if (info->si_code <= 0) raise(number);  // a signal that was sent; a fault repeats by itself
}

bool has_memory() {
  if (memory) return true;
  void* mapped = mmap(nullptr, memory_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (!mapped || mapped == MAP_FAILED) return false;
  if (!memory.replace(nullptr, static_cast<char*>(mapped))) return munmap(mapped, memory_size) == 0;
  struct sigaction handler = {};
  handler.sa_sigaction = on_fault;
  handler.sa_flags = SA_SIGINFO | SA_ONSTACK;
  return sigaction(SIGSEGV, &handler, &handler_before) == 0;
}

// Null if there is no memory, or if it is too small or in use. The host then gets the plug-in's records.
loan* lend(const dac_tagvalue* records, int count, int handle, const void* callback) {
  const ptrdiff_t size = std::max(count, 0) * ptrdiff_t{sizeof *records};
  if (!records || size > loan_size || !has_memory()) return nullptr;
  loan* l = &loans[last_loan.add(1) % std::size(loans)];
  if (l->taken.exchange(true)) return nullptr;
  l->handle.set(handle);
  l->callback.set(callback);
  mprotect(copy_of(l), loan_size, PROT_READ | PROT_WRITE);
  std::memcpy(copy_of(l), records, static_cast<size_t>(size));
  return l;
}

// A callback of the host. Called with all arguments except the last.
template <class F>
struct host_callback {
  const char* entry;
  int handle;
  F function;
  void* param;

  void operator()(auto... arguments) const try { function(arguments..., param); } catch (...) {
    report(exception, entry, handle, address(function));
    throw;
  }
};

int64_t now() { return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count(); }

// All zero at load, so that unused parts of the table take no memory.
struct instance {
  host_callback<cblog> log;     // the handle in both is -1 until dac_create has returned
  host_callback<cbdata> data;   //
  relaxed<int64_t> data_since;  // when the running data callback was called, 0 when none runs
  relaxed<size_t> last_length;  // of the text that the latest dac_getinfo measured
  relaxed<int> workers;         // running; dac_stop joins only one
  relaxed<int> calls, stops;    // not returned yet; those of dac_stop
  std::atomic<bool> taken;

  void check_data_callback() const {
    if (data_since != 0 && now() - data_since > 1'000'000'000)
      report(slow_callback, data.entry, data.handle, address(data.function));
  }
};

constexpr int handles = 2049;
instance instances[2 * handles];  // one for each handle, and as many that are being created
relaxed<instance*> by_handle[handles];
relaxed<int> alive;

// A callback that the thread runs. The list is on the stacks and needs no allocation.
[[gnu::tls_model("initial-exec")]] thread_local const struct frame* innermost = nullptr;
struct frame {
  const instance* of;
  const frame* outer = std::exchange(innermost, this);
  ~frame() { innermost = outer; }
};

bool is_inside_callback_of(const instance* i) {
  const frame* f = innermost;
  while (f && f->of != i) f = f->outer;
  return f;
}

// A host cannot continue without its plug-in, and nothing here can make its dlopen fail.
[[noreturn]] void give_up(const char* reason) {
  std::fprintf(stderr, "dac-check: %s; set DAC_CHECK_PLUGIN to the plug-in\n", reason);
  std::_Exit(127);
}

void* load() {
  Dl_info own = {};
  dladdr(address(&load), &own);
  const char* slash = std::strrchr(own.dli_fname, '/');
  char usual[4096];
  std::snprintf(usual, sizeof usual, "%.*slibip6dns.so", slash ? static_cast<int>(slash + 1 - own.dli_fname) : 0,
                own.dli_fname);
  const char* named = std::getenv("DAC_CHECK_PLUGIN");
  void* library = dlopen(named ? named : usual, RTLD_NOW | RTLD_LOCAL);
  return library ? library : (give_up(dlerror()), nullptr);
}

struct plugin {
  void* library = load();
  template <class F>
  F* find(F& own, const char* name) const {
    void* found = dlsym(library, name);
    if (!found || found == address(&own)) give_up(found ? "the plug-in is this library" : dlerror());
    return reinterpret_cast<F*>(found);
  }
  decltype(&dac_create) create = find(dac_create, "dac_create");
  decltype(&dac_destroy) destroy = find(dac_destroy, "dac_destroy");
  decltype(&dac_start) start = find(dac_start, "dac_start");
  decltype(&dac_stop) stop = find(dac_stop, "dac_stop");
  decltype(&dac_isrun) isrun = find(dac_isrun, "dac_isrun");
  decltype(&dac_devicewriteobj) devicewriteobj = find(dac_devicewriteobj, "dac_devicewriteobj");
  decltype(&dac_getversion) getversion = find(dac_getversion, "dac_getversion");
  decltype(&dac_getalltags) getalltags = find(dac_getalltags, "dac_getalltags");
  decltype(&dac_getalltagsex) getalltagsex = find(dac_getalltagsex, "dac_getalltagsex");
  decltype(&dac_getinfo) getinfo = find(dac_getinfo, "dac_getinfo");
  decltype(&g_verson) verson = find(g_verson, "g_verson");

  ~plugin() {
    bool has_threads = false;
    for (const instance& i : instances) {
      const int handle = i.data.handle;
      if (handle >= 0 && by_handle[handle] == &i) report(instance_left, "unload", handle, nullptr);
      if (!i.taken || (i.workers == 0 && i.calls == 0 && handle >= 0)) continue;
      report(thread_left, "unload", handle, nullptr);
      has_threads = true;
    }
    if (has_threads) return;  // at exit they still run in the plug-in; at unload this library's callbacks disappear
    struct sigaction now = {};
    sigaction(SIGSEGV, nullptr, &now);
    if (now.sa_sigaction == on_fault) sigaction(SIGSEGV, &handler_before, nullptr);
    if (memory) munmap(memory, memory_size);
    dlclose(library);
  }
} const real;

void on_log(const char* name, int level, const char* text, int flag, void* param) {
  const instance& i = *static_cast<instance*>(param);
  const frame inside = {&i};
  i.log(name, level, text, flag);
}

void on_data(const dac_tagvalue* records, int count, void* param) {
  instance& i = *static_cast<instance*>(param);
  const frame inside = {&i};
  loan* lent = lend(records, count, i.data.handle, address(i.data.function));
  i.data_since.set(now());
  const at_exit end([&] {
    i.check_data_callback();
    i.data_since.set(0);
    if (!lent) return;
    mprotect(copy_of(lent), loan_size, PROT_NONE);
    lent->taken = false;
  });
  i.data(lent ? copy_of(lent) : records, count);
}

// A call on an instance, from its entry to its return.
struct call {
  const char* const entry;
  const int handle;
  const void* const place;
  instance* const on = handle >= 0 && handle < handles ? +by_handle[handle] : nullptr;  // null when there is none
  const int before = on ? on->calls.add(1) : 0;                                         // calls that have not returned

  call(const char* by, int of, const void* from) : entry(by), handle(of), place(from) {
    on ? on->check_data_callback() : add(unknown_handle);
  }
  ~call() { on ? on->calls.add(-1) : 0; }
  void add(const misuse& m) const { report(m, entry, handle, place); }
};
#define CALL const call c(__func__, handle, __builtin_return_address(0))

template <class CALLBACK, class... TAG>
int list_tags(const call& c, int (*list)(int, CALLBACK, void*), CALLBACK callback, void* param) {
  if (!callback) c.add(null_callback);
  host_callback<CALLBACK> to_host = {"tag callback", c.handle, callback, param};
  const CALLBACK on_tag = [](TAG... tag, void* to) { (*static_cast<host_callback<CALLBACK>*>(to))(tag...); };
  return list(c.handle, callback ? on_tag : nullptr, callback ? &to_host : param);
}

}  // namespace

const char* const g_verson = *real.verson;

int dac_create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux aux1, void* aux1param,
               cbdata data, void* dataparam, cbaux aux2, void* aux2param) {
  const void* place = __builtin_return_address(0);
  if (!name || !*name || !cfgfile || !*cfgfile) report(null_text, __func__, -1, place);
  if (!aux1) report(null_callback, __func__, -1, place);
  auto* i = std::find_if(instances, std::end(instances), [](auto& e) { return !e.taken && !e.taken.exchange(true); });
  if (i == std::end(instances))
    return real.create(name, cfgfile, log, logparam, aux1, aux1param, data, dataparam, aux2, aux2param);
  i->log = {"log callback", -1, log, logparam};
  i->data = {"data callback", -1, data, dataparam};
  i->last_length.set(0);
  int handle = -1;
  const at_exit undo([&] { i->taken = handle >= 0; });
  handle = real.create(name, cfgfile, log ? on_log : nullptr, log ? i : logparam, aux1, aux1param,
                       data ? on_data : nullptr, data ? i : dataparam, aux2, aux2param);
  if (handle < 0 || handle >= handles) return handle;
  i->log.handle = i->data.handle = handle;
  by_handle[handle].set(i);
  if (alive.add(1) >= 1000) report(many_instances, __func__, handle, place);
  return handle;
}

void dac_destroy(int handle) {
  CALL;
  if (!c.on) return real.destroy(handle);
  const bool inside = is_inside_callback_of(c.on);
  if (inside) c.add(inside_callback);
  if (!inside && c.before > 0) c.add(destroy_in_call);
  if (!inside && c.on->workers > 0 && c.on->stops == 0) c.add(destroy_running);
  alive.add(-1);
  real.destroy(handle);
  by_handle[handle].replace(c.on, nullptr);  // unless another instance has the handle already
  if (c.on->workers == 0) c.on->taken = false;
}

int dac_start(int handle) {
  CALL;
  if (!c.on) return real.start(handle);
  if (c.on->workers.add(1) > 0) c.add(start_twice);
  int result = -1;
  const at_exit undo([&] { result == 0 ? 0 : c.on->workers.add(-1); });
  return result = real.start(handle);
}

int dac_stop(int handle) {
  CALL;
  if (!c.on) return real.stop(handle);
  const at_exit end([&] { c.on->stops.add(-1); });
  const bool inside = is_inside_callback_of(c.on);
  if (c.on->stops.add(1) > 0 || inside) c.add(inside ? inside_callback : stop_twice);
  const int result = real.stop(handle);
  if (result == 0) c.on->workers.replace(1, 0);
  return result;
}

int dac_isrun(int handle) {
  CALL;
  return real.isrun(handle);
}

// The plug-in may read further arguments. These parameters cover all argument registers of both machines and eight
// words on the stack. Passed on in the same order, each is in the same register or stack word again.
#define FURTHER(W, D) \
  W a, W b, W c, W d, W e, W f, W g, D p, D q, D r, D s, D t, D u, D v, D w, W h, W i, W j, W k, W l, W m, W n, W o
extern "C" DAC_EXPORT int device_write(int handle, FURTHER(size_t, double)) __asm__("dac_devicewriteobj");
int device_write(int handle, FURTHER(size_t, double)) {
  const call on("dac_devicewriteobj", handle, __builtin_return_address(0));
  return real.devicewriteobj(handle, a, b, c, d, e, f, g, p, q, r, s, t, u, v, w, h, i, j, k, l, m, n, o);
}
extern "C" DAC_EXPORT decltype(device_write) same __asm__("dac_devicewriteval")
    __attribute__((alias("dac_devicewriteobj")));

int dac_getversion(void) { return real.getversion(); }

int dac_getalltags(int handle, cbtag callback, void* param) {
  CALL;
  return list_tags<cbtag, const char*, int, int>(c, real.getalltags, callback, param);
}

int dac_getalltagsex(int handle, cbtagex callback, void* param) {
  CALL;
  return list_tags<cbtagex, const char*, int, int, const char*, const char*>(c, real.getalltagsex, callback, param);
}

int dac_getinfo(int handle, char* buf, size_t* size) {
  CALL;
  const size_t offered = size ? *size : 0;
  const int result = real.getinfo(handle, buf, size);
  const size_t length = size ? *size + 1 : 0, last = c.on ? c.on->last_length.exchange(length) : 0;
  if (result == 0 && c.on && offered > 1 && offered <= length)  // 0 and 1 only query the length
    c.add(offered == last || offered + 1 == last ? size_as_length : small_buffer);
  return result;
}
