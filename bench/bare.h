// Only the worker's system calls.
#pragma once

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <ctime>

/// Calls `take` with each IPv6 address as text.
template <class F>
void bare_addresses(F take) {
  ifaddrs* list;
  if (getifaddrs(&list) != 0) return;
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET6) continue;
    char text[48];
    take(inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(i->ifa_addr)->sin6_addr, text, sizeof text));
  }
  freeifaddrs(list);
}

/// Sleeps and reads the clock ten times per second and reads the addresses every ten seconds, until `stop`.
inline void bare_loop(const volatile int& stop) {
  const timespec pause = {0, 100'000'000};
  for (time_t last = 0; !stop;) {
    nanosleep(&pause, nullptr);
    const time_t now = time(nullptr);
    if (now - last < 10) continue;
    last = now;
    bare_addresses([](const char*) {});
  }
}
