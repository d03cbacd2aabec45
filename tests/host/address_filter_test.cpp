// The kernel's list of addresses, and which of them a program gets. The kernel is scripted: socket(), send(), recv(),
// ioctl() and close() are replaced below.
#include "host/hook/address_filter.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <map>
#include <system_error>

#include "driver/dac.h"

using bytes = std::string;

namespace {

struct kernel {
  int socket_result = 7;  // a descriptor, or a negative errno
  int send_error = 0;
  std::deque<bytes> parts;  // one for each recv(); none left: ENOBUFS
  int domain = 0, type = 0, protocol = 0;
  std::vector<bytes> requests;
  int closed = 0;
  std::map<int, std::string> interfaces = {{0, "lo"}, {1, "eth0"}, {2, "eth1"}};
  int ioctl_error = ENODEV;  // for other interfaces
  int names = 0;             // that were requested
};
kernel* scripted = nullptr;  // null: the system's

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
  if (!scripted) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
  scripted->domain = domain;
  scripted->type = type;
  scripted->protocol = protocol;
  if (scripted->socket_result >= 0) return scripted->socket_result;
  errno = -scripted->socket_result;
  return -1;
}

extern "C" ssize_t send(int fd, const void* data, size_t size, int flags) {
  if (!scripted) return syscall(SYS_sendto, fd, data, size, flags, nullptr, 0);
  EXPECT_EQ(fd, scripted->socket_result);
  EXPECT_EQ(flags, 0);
  scripted->requests.emplace_back(static_cast<const char*>(data), size);
  if (scripted->send_error == 0) return static_cast<ssize_t>(size);
  errno = scripted->send_error;
  return -1;
}

extern "C" ssize_t recv(int fd, void* data, size_t size, int flags) {
  if (!scripted) return syscall(SYS_recvfrom, fd, data, size, flags, nullptr, nullptr);
  EXPECT_EQ(fd, scripted->socket_result);
  EXPECT_EQ(flags, 0);
  EXPECT_GE(size, 32768U) << "the kernel's largest part";
  if (scripted->parts.empty()) {
    errno = ENOBUFS;
    return -1;
  }
  const bytes part = scripted->parts.front();
  scripted->parts.pop_front();
  EXPECT_LE(part.size(), size);
  std::memcpy(data, part.data(), part.size());
  return static_cast<ssize_t>(part.size());
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (!scripted) return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
  EXPECT_EQ(fd, scripted->socket_result);
  EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFNAME));
  ++scripted->names;
  auto* r = static_cast<ifreq*>(argument);
  const auto found = scripted->interfaces.find(r->ifr_ifindex);
  if (found != scripted->interfaces.end()) return found->second.copy(r->ifr_name, IFNAMSIZ - 1), 0;
  errno = scripted->ioctl_error;
  return -1;
}

extern "C" int close(int fd) {
  if (!scripted || fd != scripted->socket_result) return static_cast<int>(syscall(SYS_close, fd));
  ++scripted->closed;
  return 0;
}

namespace {

bytes attribute(unsigned short type, const bytes& payload) {
  const rtattr a = {static_cast<unsigned short>(RTA_LENGTH(payload.size())), type};
  bytes all(reinterpret_cast<const char*>(&a), sizeof a);
  all += payload;
  all.resize(RTA_ALIGN(all.size()));
  return all;
}

bytes address(const char* text, unsigned short type = IFA_ADDRESS) {
  in6_addr a{};
  EXPECT_EQ(inet_pton(AF_INET6, text, &a), 1);
  return attribute(type, {reinterpret_cast<const char*>(&a), sizeof a});
}

bytes flags(unsigned f) { return attribute(IFA_FLAGS, {reinterpret_cast<const char*>(&f), sizeof f}); }

bytes message(unsigned short type, const bytes& payload, unsigned short message_flags = NLM_F_MULTI) {
  nlmsghdr h{};
  h.nlmsg_len = static_cast<unsigned>(NLMSG_LENGTH(payload.size()));
  h.nlmsg_type = type;
  h.nlmsg_flags = message_flags;
  bytes all(reinterpret_cast<const char*>(&h), sizeof h);
  all += payload;
  all.resize(NLMSG_ALIGN(all.size()));
  return all;
}

struct body {
  unsigned char flags = 0;
  unsigned char scope = RT_SCOPE_UNIVERSE;
  unsigned index = 1;
};

bytes entry(const bytes& attributes, const body& what = {}, unsigned short type = RTM_NEWADDR,
            unsigned short message_flags = NLM_F_MULTI) {
  ifaddrmsg b{};
  b.ifa_family = AF_INET6;
  b.ifa_prefixlen = 64;
  b.ifa_flags = what.flags;
  b.ifa_scope = what.scope;
  b.ifa_index = what.index;
  return message(type, bytes(reinterpret_cast<const char*>(&b), sizeof b) + attributes, message_flags);
}

bytes done(unsigned short message_flags = NLM_F_MULTI) { return message(NLMSG_DONE, bytes(4, '\0'), message_flags); }

bytes failure(int error) {
  nlmsgerr e{};
  e.error = -error;
  return message(NLMSG_ERROR, {reinterpret_cast<const char*>(&e), sizeof e}, 0);
}

using texts = std::vector<std::string>;

texts texts_of(const std::vector<kernel_address>& list) {
  texts all;
  for (const kernel_address& a : list) all.push_back(a.text);
  return all;
}

class kernel_list : public testing::Test {
 protected:
  kernel k;

  kernel_list() { scripted = &k; }
  ~kernel_list() override { scripted = nullptr; }

  std::vector<kernel_address> read(std::initializer_list<bytes> parts) {
    k.parts = parts;
    return kernel_address_list().all();
  }
  texts texts_in(std::initializer_list<bytes> parts) { return texts_of(read(parts)); }
  unsigned flags_in(const bytes& only) { return read({only + done()}).at(0).flags; }
  int error_of(std::initializer_list<bytes> parts) {
    try {
      read(parts);
    } catch (const std::system_error& e) {
      EXPECT_EQ(std::string(e.what()).substr(0, 7), "netlink");
      return e.code().value();
    }
    return 0;
  }
};

using kind = address_filter::kind;

kernel_address listed(const std::string& text, unsigned flags = 0, const std::string& interface = "eth0",
                      unsigned char scope = RT_SCOPE_UNIVERSE) {
  kernel_address a{text, {}, interface, scope, flags};
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &a.address), 1) << text;
  return a;
}

bool passes(kind k, const kernel_address& a) { return !choose({k}, {a}).empty(); }

}  // namespace

// ---------------------------------------------------------------- the kernel's list

TEST_F(kernel_list, needs_one_dump_request) {
  EXPECT_EQ(texts_in({done()}), texts{});
  EXPECT_EQ(k.domain, AF_NETLINK);
  EXPECT_EQ(k.type, SOCK_RAW | SOCK_CLOEXEC);
  EXPECT_EQ(k.protocol, NETLINK_ROUTE);
  ASSERT_EQ(k.requests.size(), 1U);
  struct {
    nlmsghdr header;
    ifaddrmsg body;
  } r{};
  ASSERT_EQ(k.requests[0].size(), sizeof r);
  std::memcpy(&r, k.requests[0].data(), sizeof r);
  EXPECT_EQ(r.header.nlmsg_len, sizeof r);
  EXPECT_EQ(r.header.nlmsg_type, RTM_GETADDR);
  EXPECT_EQ(r.header.nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
  EXPECT_EQ(r.body.ifa_family, AF_INET6);
  EXPECT_EQ(k.closed, 1);
}

TEST_F(kernel_list, may_be_read_through_descriptor_0) {
  k.socket_result = 0;
  EXPECT_EQ(texts_in({entry(address("2001:db8::1")) + done()}), texts{"2001:db8::1"});
  EXPECT_EQ(k.closed, 1);
}

TEST_F(kernel_list, has_text_bytes_interface_scope_and_flags_of_each_address) {
  const auto all = read({entry(address("fe80::1") + flags(IFA_F_PERMANENT), {0, RT_SCOPE_LINK, 2}) +
                         entry(address("2001:db8::1") + flags(IFA_F_MANAGETEMPADDR | IFA_F_DEPRECATED)) + done()});
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].text, "fe80::1");
  EXPECT_EQ(all[0].address.s6_addr[0], 0xfe);
  EXPECT_EQ(all[0].address.s6_addr[15], 1);
  EXPECT_EQ(all[0].interface_name, "eth1");
  EXPECT_EQ(all[0].scope, RT_SCOPE_LINK);
  EXPECT_EQ(all[0].flags, unsigned{IFA_F_PERMANENT});
  EXPECT_EQ(all[1].text, "2001:db8::1");
  EXPECT_EQ(all[1].interface_name, "eth0");
  EXPECT_EQ(all[1].scope, RT_SCOPE_UNIVERSE);
  EXPECT_EQ(all[1].flags, unsigned{IFA_F_MANAGETEMPADDR | IFA_F_DEPRECATED});
}

TEST_F(kernel_list, preserves_the_kernels_order_and_repetitions) {
  EXPECT_EQ(texts_in({entry(address("2001:db8::9")) + entry(address("2001:db8::1")),
                      entry(address("2001:db8::9"), {0, RT_SCOPE_UNIVERSE, 2}) + done()}),
            (texts{"2001:db8::9", "2001:db8::1", "2001:db8::9"}));
}

TEST_F(kernel_list, requests_the_name_of_each_interface_once) {
  bytes many;
  for (int n = 0; n < 100; ++n) many += entry(address("2001:db8::1"), {0, RT_SCOPE_UNIVERSE, n % 2 == 0 ? 1U : 2U});
  EXPECT_EQ(read({many, many + done()}).size(), 200U);
  EXPECT_EQ(k.names, 2);
}

TEST_F(kernel_list, uses_short_flags_if_there_are_no_long_ones) {
  EXPECT_EQ(flags_in(entry(address("2001:db8::1"), {IFA_F_DEPRECATED})), unsigned{IFA_F_DEPRECATED});
  EXPECT_EQ(flags_in(entry(address("2001:db8::1") + flags(IFA_F_PERMANENT), {IFA_F_DEPRECATED})),
            unsigned{IFA_F_PERMANENT});
}

TEST_F(kernel_list, has_the_local_address_and_not_the_peers) {
  EXPECT_EQ(texts_in({entry(address("2001:db8::a") + address("2001:db8::1", IFA_LOCAL)) +
                      entry(address("2001:db8::2", IFA_LOCAL) + address("2001:db8::b")) + done()}),
            (texts{"2001:db8::1", "2001:db8::2"}));
}

TEST_F(kernel_list, ignores_other_attributes_and_messages) {
  EXPECT_EQ(texts_in({entry(address("2001:db8::c", IFA_ANYCAST)) + entry("") +
                      entry(address("2001:db8::1") + attribute(IFA_CACHEINFO, bytes(16, '\xff')) +
                            attribute(IFA_LABEL, "eth0")) +
                      entry(address("2001:db8::d"), {}, RTM_DELADDR) + done()}),
            texts{"2001:db8::1"});
}

TEST_F(kernel_list, comes_in_any_number_of_parts) {
  EXPECT_EQ(texts_in({entry(address("2001:db8::1")), "", entry(address("2001:db8::2")) + entry(address("2001:db8::3")),
                      entry(address("2001:db8::4")) + done(), entry(address("2001:db8::5"))}),
            (texts{"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4"}));
  EXPECT_EQ(k.parts.size(), 1U);
}

TEST_F(kernel_list, fills_the_largest_part) {
  bytes part;
  texts expected;
  for (int n = 1; part.size() + 2 * entry(address("2001:db8::1")).size() <= 32768; ++n) {
    char text[INET6_ADDRSTRLEN];
    std::snprintf(text, sizeof text, "2001:db8::%x", static_cast<unsigned>(n));
    part += entry(address(text));
    expected.emplace_back(text);
  }
  EXPECT_EQ(texts_in({part + done()}), expected);
}

TEST_F(kernel_list, is_read_again_if_it_changed_while_it_was_read) {
  const bytes torn = entry(address("2001:db8::9"), {}, RTM_NEWADDR, NLM_F_MULTI | NLM_F_DUMP_INTR) + done();
  const bytes torn_at_end = entry(address("2001:db8::8")) + done(NLM_F_MULTI | NLM_F_DUMP_INTR);
  EXPECT_EQ(texts_in({torn, torn_at_end, torn, torn, entry(address("2001:db8::1")) + done()}), texts{"2001:db8::1"});
  EXPECT_EQ(k.requests.size(), 5U);
  EXPECT_EQ(k.closed, 1);
}

TEST_F(kernel_list, is_read_again_if_an_interface_vanished) {
  const bytes gone = entry(address("2001:db8::9"), {0, RT_SCOPE_UNIVERSE, 77}) + done();
  EXPECT_EQ(texts_in({gone, entry(address("2001:db8::1")) + done()}), texts{"2001:db8::1"});
  EXPECT_EQ(k.requests.size(), 2U);
}

TEST_F(kernel_list, is_read_five_times_at_most) {
  const bytes torn = done(NLM_F_MULTI | NLM_F_DUMP_INTR);
  EXPECT_EQ(error_of({torn, torn, torn, torn, torn, torn, torn}), EAGAIN);
  EXPECT_EQ(k.requests.size(), 5U);
  EXPECT_EQ(k.closed, 1);
}

TEST_F(kernel_list, reports_what_the_kernel_refuses) {
  EXPECT_EQ(error_of({failure(EPERM)}), EPERM);
  EXPECT_EQ(k.closed, 1);
  EXPECT_EQ(error_of({}), ENOBUFS);
  EXPECT_EQ(k.closed, 2);
  k.send_error = ECONNREFUSED;
  EXPECT_EQ(error_of({done()}), ECONNREFUSED);
  EXPECT_EQ(k.closed, 3);
  k.send_error = 0;
  k.ioctl_error = EPERM;
  EXPECT_EQ(error_of({entry(address("2001:db8::9"), {0, RT_SCOPE_UNIVERSE, 77}) + done()}), EPERM);
  EXPECT_EQ(k.closed, 4);
  k.socket_result = -EMFILE;
  EXPECT_EQ(error_of({done()}), EMFILE);
  EXPECT_EQ(k.closed, 4) << "there is nothing to close";
}

// ---------------------------------------------------------------- the filters

TEST(address_filters, choose_by_prefix) {
  const struct row {
    const char* text;
    bool all;
    bool global;
  } rows[] = {
      {"2001:db8::1", true, true},
      {"2a00::1", true, true},
      {"fbff:ffff::1", true, true},
      {"fc00::", true, false},
      {"fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", true, false},
      {"fe00::1", true, true},
      {"1fc:fc00::", true, true},
      {"64:ff9b::c000:201", true, false},
      {"64:ff9b::ffff:ffff", true, false},
      {"64:ff9b:0:0:0:1::", true, true},
      {"64:ff9a:ffff:ffff:ffff:ffff:ffff:ffff", true, true},
      {"64:ff9b:1::1", true, true},
      {"100::", true, false},
      {"100::ffff:ffff:ffff:ffff", true, false},
      {"100:0:0:1::", true, true},
      {"ff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", true, true},
      {"2001::", true, false},
      {"2001:0:ffff:ffff:ffff:ffff:ffff:ffff", true, false},
      {"2001:1::", true, true},
      {"2000:ffff:ffff:ffff:ffff:ffff:ffff:ffff", true, true},
      {"2002::1", true, false},
      {"2002:ffff::1", true, false},
      {"2003::1", true, true},
      {"5f00::1", true, false},
      {"5f00:ffff::1", true, false},
      {"5f01::1", true, true},
      {"5eff:ffff::1", true, true},
      {"::192.0.2.1", false, false},
      {"::ffff:192.0.2.1", false, false},
      {"::1:ffff:192.0.2.1", true, true},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.text);
    EXPECT_EQ(passes(kind::all, listed(r.text)), r.all);
    EXPECT_EQ(passes(kind::global, listed(r.text)), r.global);
    EXPECT_EQ(passes(kind::stable, listed(r.text)), r.global);
  }
}

TEST(address_filters, choose_by_flags) {
  const struct row {
    unsigned flags;
    bool global;
    bool stable;
  } rows[] = {
      {0, true, true},
      {IFA_F_PERMANENT | IFA_F_NODAD, true, true},
      {IFA_F_MANAGETEMPADDR | IFA_F_NOPREFIXROUTE | IFA_F_STABLE_PRIVACY, true, true},
      {IFA_F_TEMPORARY, true, false},
      {IFA_F_DEPRECATED, true, false},
      {IFA_F_TEMPORARY | IFA_F_DEPRECATED, true, false},
      {IFA_F_TENTATIVE, false, false},
      {IFA_F_TENTATIVE | IFA_F_TEMPORARY, false, false},
      {IFA_F_TENTATIVE | IFA_F_PERMANENT, false, false},
      {IFA_F_TENTATIVE | IFA_F_OPTIMISTIC, true, true},
      {IFA_F_TENTATIVE | IFA_F_OPTIMISTIC | IFA_F_TEMPORARY, true, false},
      {IFA_F_DADFAILED, false, false},
      {IFA_F_DADFAILED | IFA_F_TENTATIVE | IFA_F_PERMANENT, false, false},
      {IFA_F_DADFAILED | IFA_F_TENTATIVE | IFA_F_OPTIMISTIC, false, false},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.flags);
    EXPECT_TRUE(passes(kind::all, listed("2001:db8::1", r.flags)));
    EXPECT_EQ(passes(kind::global, listed("2001:db8::1", r.flags)), r.global);
    EXPECT_EQ(passes(kind::stable, listed("2001:db8::1", r.flags)), r.stable);
  }
}

TEST(address_filters, choose_addresses_of_global_scope_only) {
  for (const kind k : {kind::all, kind::global, kind::stable}) {
    EXPECT_FALSE(passes(k, listed("::1", 0, "lo", RT_SCOPE_HOST)));
    EXPECT_FALSE(passes(k, listed("fe80::1", 0, "eth0", RT_SCOPE_LINK)));
    EXPECT_FALSE(passes(k, listed("fec0::1", 0, "eth0", RT_SCOPE_SITE)));
    EXPECT_FALSE(passes(k, listed("2001:db8::1", 0, "eth0", RT_SCOPE_LINK)));
  }
}

TEST(address_filters, choose_an_address_once_if_one_interface_has_it_so) {
  const std::vector<kernel_address> list = {listed("2001:db8::1", IFA_F_TEMPORARY),
                                            listed("2001:db8::2"),
                                            listed("2001:db8::3"),
                                            listed("2001:db8::1", 0, "eth1"),
                                            listed("2001:db8::2", 0, "eth1"),
                                            listed("2001:db8::3", IFA_F_DEPRECATED, "eth1")};
  EXPECT_EQ(texts_of(choose({kind::stable}, list)), (texts{"2001:db8::2", "2001:db8::3", "2001:db8::1"}));
  EXPECT_EQ(texts_of(choose({kind::global}, list)), (texts{"2001:db8::1", "2001:db8::2", "2001:db8::3"}));
  EXPECT_EQ(choose({kind::stable}, list).at(2).interface_name, "eth1");
}

TEST(address_filters, choose_by_interface) {
  const std::vector<kernel_address> list = {listed("2001:db8::1", 0, "eth0"), listed("2001:db8::2", 0, "eth1"),
                                            listed("2001:db8::3", 0, "eth10"), listed("2001:db8::1", 0, "ppp0")};
  const struct row {
    texts wanted;
    texts excluded;
    texts expected;
  } rows[] = {
      {{}, {}, {"2001:db8::1", "2001:db8::2", "2001:db8::3"}},
      {{"eth1"}, {}, {"2001:db8::2"}},
      {{"ppp0", "eth1"}, {}, {"2001:db8::2", "2001:db8::1"}},
      {{}, {"eth0"}, {"2001:db8::2", "2001:db8::3", "2001:db8::1"}},
      {{}, {"eth0", "ppp0"}, {"2001:db8::2", "2001:db8::3"}},
      {{"eth10"}, {"eth1"}, {"2001:db8::3"}},
      {{"eth"}, {}, {}},
      {{"eth7"}, {}, {}},
  };
  for (const row& r : rows)
    for (const kind k : {kind::all, kind::global, kind::stable})
      EXPECT_EQ(texts_of(choose({k, r.wanted, r.excluded}, list)), r.expected);
}

// The stable address is not in the published text, which has room for a part of this list.
TEST(address_filters, choose_a_stable_address_after_31_deprecated_ones) {
  std::vector<kernel_address> list;
  for (int n = 31; n > 0; --n)
    list.push_back(listed("2001:db8:ffff:ffff:ffff:ffff:ffff:1" + std::to_string(100 + n), IFA_F_DEPRECATED));
  EXPECT_GT(value_of(list).size(), size_t{DAC_VALUE_SIZE});
  EXPECT_TRUE(choose({kind::stable}, list).empty());
  list.push_back(listed("2001:db8::1"));
  EXPECT_EQ(texts_of(choose({kind::stable}, list)), texts{"2001:db8::1"});
}

TEST(address_filters, use_the_published_value_only_if_they_exclude_nothing) {
  EXPECT_TRUE(address_filter{}.uses_published_value());
  EXPECT_FALSE(address_filter{kind::global}.uses_published_value());
  EXPECT_FALSE(address_filter{kind::stable}.uses_published_value());
  EXPECT_FALSE((address_filter{kind::all, {"eth0"}, {}}.uses_published_value()));
  EXPECT_FALSE((address_filter{kind::all, {}, {"eth0"}}.uses_published_value()));
}

TEST(address_filters, are_named_by_the_options_that_make_them) {
  EXPECT_EQ(options_of({}), "");
  EXPECT_EQ(options_of({kind::global}), "--pick global");
  EXPECT_EQ(options_of({kind::stable, {"eth0"}, {}}), "--pick stable --interface eth0");
  EXPECT_EQ(options_of({kind::all, {"a", "b"}, {"c", "d"}}),
            "--interface a --interface b --interface !c --interface !d");
}

TEST(published_value, loses_the_last_address_if_it_fills_its_field) {
  std::string value = "2001:db8::1";
  while (value.size() + 13 < DAC_VALUE_SIZE - 1) value += ",2001:db8::" + std::to_string(10 + value.size() % 90);
  const std::string begin = value;
  value += ",2001:db8::";
  value.resize(DAC_VALUE_SIZE - 2, '7');
  EXPECT_EQ(without_cut_address(value), value) << "one byte less";
  EXPECT_EQ(without_cut_address(value + '7'), begin);
  const std::string single(DAC_VALUE_SIZE - 1, 'x');
  EXPECT_EQ(without_cut_address(single), single);
  EXPECT_EQ(without_cut_address("null"), "null");
}

TEST(address_filters, write_addresses_as_a_value) {
  EXPECT_EQ(value_of({}), "null");
  EXPECT_EQ(value_of({listed("2001:db8::1")}), "2001:db8::1");
  EXPECT_EQ(value_of({listed("2001:db8::1"), listed("fd00::1")}), "2001:db8::1,fd00::1");
}
