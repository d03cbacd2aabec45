#include "host/hook/address_filter.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <span>
#include <system_error>
#include <utility>

#include "driver/dac.h"

namespace {

// ---------------------------------------------------------------- the kernel's list

struct request {
  nlmsghdr header;
  ifaddrmsg body;
};

void request_addresses(int fd) {
  request r{};
  r.header.nlmsg_len = sizeof r;
  r.header.nlmsg_type = RTM_GETADDR;
  r.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  r.body.ifa_family = AF_INET6;
  if (send(fd, &r, sizeof r, 0) < 0) throw std::system_error(errno, std::generic_category(), "netlink");
}

// With a peer, IFA_ADDRESS is the peer's.
struct attributes {
  const in6_addr* address = nullptr;
  const in6_addr* local = nullptr;
  unsigned flags;

  explicit attributes(const nlmsghdr* m) : flags(static_cast<const ifaddrmsg*>(NLMSG_DATA(m))->ifa_flags) {
    int left = static_cast<int>(IFA_PAYLOAD(m));
    for (const rtattr* a = IFA_RTA(static_cast<const ifaddrmsg*>(NLMSG_DATA(m))); RTA_OK(a, left);
         a = RTA_NEXT(a, left))
      take(a);
  }

  void take(const rtattr* a) {
    if (a->rta_type == IFA_ADDRESS) address = static_cast<const in6_addr*>(RTA_DATA(a));
    if (a->rta_type == IFA_LOCAL) local = static_cast<const in6_addr*>(RTA_DATA(a));
    if (a->rta_type == IFA_FLAGS) std::memcpy(&flags, RTA_DATA(a), sizeof flags);
  }
};

struct listing {
  int fd;
  std::vector<kernel_address> addresses = {};
  std::map<unsigned, std::string> interface_names = {};
  bool is_torn = false;  // the kernel's list changed while it was read, and may lack what did not change
};

// "" for an interface that has vanished.
std::string name_of_interface(int fd, unsigned index) {
  ifreq r{};
  r.ifr_ifindex = static_cast<int>(index);
  if (ioctl(fd, SIOCGIFNAME, &r) == 0) return r.ifr_name;
  if (errno == ENODEV) return "";
  throw std::system_error(errno, std::generic_category(), "netlink");
}

void add_address(const nlmsghdr* m, listing& l) {
  const auto* body = static_cast<const ifaddrmsg*>(NLMSG_DATA(m));
  const attributes a(m);
  const in6_addr* own = a.local ? a.local : a.address;
  if (!own) return;
  const auto [name, is_new] = l.interface_names.try_emplace(body->ifa_index);
  if (is_new) name->second = name_of_interface(l.fd, body->ifa_index);
  if (name->second.empty()) l.is_torn = true;
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(AF_INET6, own, text, sizeof text);
  l.addresses.push_back({text, *own, name->second, body->ifa_scope, a.flags});
}

// True at the end of the list.
bool read_message(const nlmsghdr* m, listing& l) {
  if ((m->nlmsg_flags & NLM_F_DUMP_INTR) != 0) l.is_torn = true;
  if (m->nlmsg_type == NLMSG_ERROR)
    throw std::system_error(-static_cast<const nlmsgerr*>(NLMSG_DATA(m))->error, std::generic_category(), "netlink");
  if (m->nlmsg_type == RTM_NEWADDR) add_address(m, l);
  return m->nlmsg_type == NLMSG_DONE;
}

bool read_messages(listing& l) {
  alignas(nlmsghdr) char buf[32768];
  const ssize_t n = recv(l.fd, buf, sizeof buf, 0);
  if (n < 0) throw std::system_error(errno, std::generic_category(), "netlink");
  auto left = static_cast<unsigned>(n);
  for (const auto* m = reinterpret_cast<const nlmsghdr*>(buf); NLMSG_OK(m, left); m = NLMSG_NEXT(m, left))
    if (read_message(m, l)) return true;
  return false;
}

listing list_addresses(int fd) {
  request_addresses(fd);
  listing l{fd};
  while (!read_messages(l)) {
  }
  return l;
}

// ---------------------------------------------------------------- the choice

struct prefix {
  unsigned char bytes[12];
  int bits;
};

// What the plug-in does not publish either: IPv4-compatible and IPv4-mapped addresses.
constexpr prefix never_published[] = {{{}, 96}, {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}, 96}};

constexpr prefix not_global[] = {{{0xfc}, 7},                     // unique-local
                                 {{0, 0x64, 0xff, 0x9b}, 96},     // translated IPv4
                                 {{0x01}, 64},                    // discard-only
                                 {{0x20, 0x01, 0x00, 0x00}, 32},  // Teredo
                                 {{0x20, 0x02}, 16},              // 6to4
                                 {{0x5f}, 16}};                   // segment routing

bool is_in(const in6_addr& a, const prefix& p) {
  const auto whole = static_cast<size_t>(p.bits / 8);
  const int rest = p.bits % 8;
  if (std::memcmp(a.s6_addr, p.bytes, whole) != 0) return false;
  return rest == 0 || (a.s6_addr[whole] ^ p.bytes[whole]) >> (8 - rest) == 0;
}

bool is_in_any(const in6_addr& a, std::span<const prefix> all) {
  return std::any_of(all.begin(), all.end(), [&a](const prefix& p) { return is_in(a, p); });
}

// Until duplicate detection has ended, and after it has failed, the address may be another machine's. An optimistic
// address is in use before that end (RFC 4429).
bool is_usable(unsigned flags) {
  if ((flags & IFA_F_DADFAILED) != 0) return false;
  return (flags & IFA_F_TENTATIVE) == 0 || (flags & IFA_F_OPTIMISTIC) != 0;
}

bool is_of_kind(address_filter::kind k, const kernel_address& a) {
  if (a.scope != RT_SCOPE_UNIVERSE || is_in_any(a.address, never_published)) return false;
  if (k == address_filter::kind::all) return true;
  if (!is_usable(a.flags) || is_in_any(a.address, not_global)) return false;
  return k == address_filter::kind::global || (a.flags & (IFA_F_TEMPORARY | IFA_F_DEPRECATED)) == 0;
}

bool has(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

bool is_on_wanted_interface(const address_filter& f, const std::string& name) {
  return (f.interfaces.empty() || has(f.interfaces, name)) && !has(f.excluded, name);
}

}  // namespace

std::vector<kernel_address> kernel_address_list::all() {
  constexpr int most_tries = 5;
  const struct closing {
    int fd;
    ~closing() { close(fd); }
  } netlink{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
  if (netlink.fd < 0) throw std::system_error(errno, std::generic_category(), "netlink");
  for (int n = 0; n < most_tries; ++n)
    if (listing l = list_addresses(netlink.fd); !l.is_torn) return std::move(l.addresses);
  throw std::system_error(EAGAIN, std::generic_category(), "netlink");
}

std::string options_of(const address_filter& f) {
  std::string text;
  for (const auto& [name, kind] : filter_names)
    if (kind == f.which && kind != address_filter::kind::all) text += " --pick " + std::string(name);
  for (const std::string& name : f.interfaces) text += " --interface " + name;
  for (const std::string& name : f.excluded) text += " --interface !" + name;
  return text.empty() ? text : text.substr(1);
}

std::vector<kernel_address> choose(const address_filter& f, const std::vector<kernel_address>& list) {
  std::vector<kernel_address> chosen;
  std::set<std::string> seen;
  for (const kernel_address& a : list)
    if (is_on_wanted_interface(f, a.interface_name) && is_of_kind(f.which, a) && seen.insert(a.text).second)
      chosen.push_back(a);
  return chosen;
}

std::string value_of(const std::vector<kernel_address>& addresses) {
  std::string value;
  for (const kernel_address& a : addresses) value.append(value.empty() ? "" : ",").append(a.text);
  return value.empty() ? "null" : value;
}

// A value that fills its field may have been cut in the middle of its last address, which is then another address.
std::string without_cut_address(const std::string& published) {
  if (published.size() < DAC_VALUE_SIZE - 1) return published;
  return published.substr(0, published.rfind(','));
}
