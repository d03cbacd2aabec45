#include "tests/support/fake_interfaces.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "tests/support/immortal.h"

namespace {

struct state {
  std::mutex mtx;
  std::vector<std::string> addresses;
  std::string refused;
  std::string replaced, characters;  // an address and what inet_ntop writes for it
  int result = 0, lists = 0, frees = 0;
  size_t text_room = 0;
};

state& s() { return immortal<state>(); }

sockaddr* make_address(const std::string& text) {
  if (text == "none") return nullptr;
  if (text == "ipv4") {
    auto* a = new sockaddr_in{};
    a->sin_family = AF_INET;
    return reinterpret_cast<sockaddr*>(a);
  }
  auto* a = new sockaddr_in6{};
  a->sin6_family = AF_INET6;
  if (inet_pton(AF_INET6, text.c_str(), &a->sin6_addr) != 1) throw std::invalid_argument(text);
  return reinterpret_cast<sockaddr*>(a);
}

void free_address(sockaddr* a) {
  if (!a) return;
  if (a->sa_family == AF_INET)
    delete reinterpret_cast<sockaddr_in*>(a);
  else
    delete reinterpret_cast<sockaddr_in6*>(a);
}

bool is_address(const void* bytes, const std::string& text) {
  in6_addr a{};
  return inet_pton(AF_INET6, text.c_str(), &a) == 1 && std::memcmp(&a, bytes, sizeof a) == 0;
}

}  // namespace

extern "C" int getifaddrs(ifaddrs** list) noexcept {
  const std::lock_guard hold(s().mtx);
  ++s().lists;
  if (s().result != 0) {
    errno = ENOBUFS;
    return s().result;
  }
  if (fake_interfaces::list_calls.is_next()) {
    ++s().frees;  // nothing to free
    errno = ENOBUFS;
    return -1;
  }
  ifaddrs* head = nullptr;
  ifaddrs** link = &head;
  for (const std::string& text : s().addresses) {
    *link = new ifaddrs{};
    (*link)->ifa_addr = make_address(text);
    link = &(*link)->ifa_next;
  }
  *list = head;
  if (!head) ++s().frees;  // nothing to free
  return 0;
}

extern "C" void freeifaddrs(ifaddrs* list) noexcept {
  if (!list) std::abort();  // must not be called with null
  const std::lock_guard hold(s().mtx);
  ++s().frees;
  while (list) {
    ifaddrs* next = list->ifa_next;
    free_address(list->ifa_addr);
    delete list;
    list = next;
  }
}

extern "C" const char* inet_ntop(int family, const void* a, char* text, socklen_t size) noexcept {
  static auto* real =
      reinterpret_cast<const char* (*)(int, const void*, char*, socklen_t)>(dlsym(RTLD_NEXT, "inet_ntop"));
  const std::lock_guard hold(s().mtx);
  s().text_room = size;
  if (fake_interfaces::text_calls.is_next()) {
    errno = ENOSPC;
    return nullptr;
  }
  if (is_address(a, s().refused)) {
    errno = ENOSPC;
    return nullptr;
  }
  if (is_address(a, s().replaced)) {
    s().characters.copy(text, size);
    return text;
  }
  return real(family, a, text, size);
}

namespace fake_interfaces {

nth list_calls, text_calls;

void set(std::vector<std::string> addresses) {
  const std::lock_guard hold(s().mtx);
  s().addresses = std::move(addresses);
}
void fail(int result) {
  const std::lock_guard hold(s().mtx);
  s().result = result;
}
void refuse_text_of(std::string address) {
  const std::lock_guard hold(s().mtx);
  s().refused = std::move(address);
}
void set_text_of(std::string address, std::string characters) {
  const std::lock_guard hold(s().mtx);
  s().replaced = std::move(address);
  s().characters = std::move(characters);
}
int lists() {
  const std::lock_guard hold(s().mtx);
  return s().lists;
}
int frees() {
  const std::lock_guard hold(s().mtx);
  return s().frees;
}
int outstanding() {
  const std::lock_guard hold(s().mtx);
  return s().result != 0 ? 0 : s().lists - s().frees;
}
size_t text_room() {
  const std::lock_guard hold(s().mtx);
  return s().text_room;
}
void reset() {
  const std::lock_guard hold(s().mtx);
  s().text_room = 0;
  std::vector<std::string>().swap(s().addresses);  // and its memory
  s().refused.clear();
  s().replaced.clear();
  s().result = s().lists = s().frees = 0;
}

}  // namespace fake_interfaces
