#include "host/hook/address_filter.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include "driver/dac.h"

namespace {

using texts = std::set<std::string>;

struct request {
  nlmsghdr header;
  ifaddrmsg body;
};

void ask_for_addresses(int fd) {
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

void note_stable(const nlmsghdr* m, texts& stable) {
  const attributes a(m);
  const in6_addr* own = a.local ? a.local : a.address;
  if (!own || (a.flags & (IFA_F_TEMPORARY | IFA_F_DEPRECATED)) != 0) return;
  char text[INET6_ADDRSTRLEN] = {};
  stable.insert(inet_ntop(AF_INET6, own, text, sizeof text));
}

struct listing {
  texts stable;
  bool is_torn = false;  // the kernel's list changed while it was read, and may lack what did not change
};

// True at the end of the list.
bool read_message(const nlmsghdr* m, listing& l) {
  if ((m->nlmsg_flags & NLM_F_DUMP_INTR) != 0) l.is_torn = true;
  if (m->nlmsg_type == NLMSG_ERROR)
    throw std::system_error(-static_cast<const nlmsgerr*>(NLMSG_DATA(m))->error, std::generic_category(), "netlink");
  if (m->nlmsg_type == RTM_NEWADDR) note_stable(m, l.stable);
  return m->nlmsg_type == NLMSG_DONE;
}

bool read_messages(int fd, listing& l) {
  alignas(nlmsghdr) char buf[32768];
  const ssize_t n = recv(fd, buf, sizeof buf, 0);
  if (n < 0) throw std::system_error(errno, std::generic_category(), "netlink");
  auto left = static_cast<unsigned>(n);
  for (const auto* m = reinterpret_cast<const nlmsghdr*>(buf); NLMSG_OK(m, left); m = NLMSG_NEXT(m, left))
    if (read_message(m, l)) return true;
  return false;
}

listing list_addresses(int fd) {
  ask_for_addresses(fd);
  listing l;
  while (!read_messages(fd, l)) {
  }
  return l;
}

using choice = std::function<bool(const std::string& address)>;

bool is_global(const std::string& address) {
  in6_addr a{};
  return inet_pton(AF_INET6, address.c_str(), &a) == 1 && (a.s6_addr[0] & 0xfe) != 0xfc;
}

choice choice_of(address_filter f, address_list& kernel) {
  if (f == address_filter::global) return is_global;
  return [stable = kernel.stable()](const std::string& a) { return is_global(a) && stable.contains(a); };
}

// A value that fills its field may have been cut in the middle of its last address, which is then another address.
std::string without_what_was_cut(const std::string& value) {
  if (value.size() < DAC_VALUE_SIZE - 1) return value;
  return value.substr(0, value.rfind(','));
}

}  // namespace

texts kernel_address_list::stable() {
  constexpr int most_tries = 5;
  const struct closing {
    int fd;
    ~closing() { close(fd); }
  } netlink{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
  if (netlink.fd < 0) throw std::system_error(errno, std::generic_category(), "netlink");
  for (int n = 0; n < most_tries; ++n)
    if (listing l = list_addresses(netlink.fd); !l.is_torn) return std::move(l.stable);
  throw std::system_error(EAGAIN, std::generic_category(), "netlink");
}

std::string filtered(address_filter f, const std::string& value, address_list& kernel) {
  std::string whole = without_what_was_cut(value);
  if (f == address_filter::all || whole == "null") return whole;
  const choice wanted = choice_of(f, kernel);
  std::istringstream addresses(whole);
  std::string left;
  for (std::string a; std::getline(addresses, a, ',');)
    if (wanted(a)) left.append(left.empty() ? "" : ",").append(a);
  return left.empty() ? "null" : left;
}
