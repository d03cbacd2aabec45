// Which addresses a hook gets, and what the kernel's list of addresses means. The kernel is scripted: socket(), send(),
// recv() and close() are replaced below.
#include "host/hook/address_filter.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
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

bytes entry(const bytes& attributes, unsigned char old_flags = 0, unsigned short type = RTM_NEWADDR,
            unsigned short message_flags = NLM_F_MULTI) {
  ifaddrmsg b{};
  b.ifa_family = AF_INET6;
  b.ifa_prefixlen = 64;
  b.ifa_flags = old_flags;
  return message(type, bytes(reinterpret_cast<const char*>(&b), sizeof b) + attributes, message_flags);
}

bytes done(unsigned short message_flags = NLM_F_MULTI) { return message(NLMSG_DONE, bytes(4, '\0'), message_flags); }

bytes failure(int error) {
  nlmsgerr e{};
  e.error = -error;
  return message(NLMSG_ERROR, {reinterpret_cast<const char*>(&e), sizeof e}, 0);
}

using addresses = std::set<std::string>;

class kernel_list : public testing::Test {
 protected:
  kernel k;

  kernel_list() { scripted = &k; }
  ~kernel_list() override { scripted = nullptr; }

  addresses stable(std::initializer_list<bytes> parts) {
    k.parts = parts;
    return kernel_address_list().stable();
  }
  int error_of(std::initializer_list<bytes> parts) {
    try {
      stable(parts);
    } catch (const std::system_error& e) {
      EXPECT_EQ(std::string(e.what()).substr(0, 7), "netlink");
      return e.code().value();
    }
    return 0;
  }
};

/// What a filter asks for.
class known_addresses : public address_list {
 public:
  addresses known;
  int calls = 0;
  addresses stable() override {
    ++calls;
    return known;
  }
};

std::string filtered_by(address_filter f, const std::string& value, const addresses& known = {}) {
  known_addresses k;
  k.known = known;
  std::string left = filtered(f, value, k);
  EXPECT_LE(k.calls, f == address_filter::stable ? 1 : 0);
  return left;
}

}  // namespace

TEST_F(kernel_list, is_asked_for_with_one_dump_request) {
  EXPECT_EQ(stable({done()}), addresses{});
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
  EXPECT_EQ(stable({entry(address("2001:db8::1")) + done()}), addresses{"2001:db8::1"});
  EXPECT_EQ(k.closed, 1);
}

TEST_F(kernel_list, lacks_temporary_and_deprecated_addresses) {
  EXPECT_EQ(stable({entry(address("2001:db8::1")) + entry(address("2001:db8::2") + flags(IFA_F_TEMPORARY)) +
                    entry(address("2001:db8::3") + flags(IFA_F_DEPRECATED)) +
                    entry(address("2001:db8::4") + flags(IFA_F_PERMANENT | IFA_F_MANAGETEMPADDR)) + done()}),
            (addresses{"2001:db8::1", "2001:db8::4"}));
}

TEST_F(kernel_list, takes_short_flags_where_there_are_no_long_ones) {
  EXPECT_EQ(stable({entry(address("2001:db8::1"), IFA_F_TEMPORARY) + entry(address("2001:db8::2"), IFA_F_DEPRECATED) +
                    entry(address("2001:db8::3"), IFA_F_PERMANENT) +
                    entry(address("2001:db8::4") + flags(IFA_F_PERMANENT), IFA_F_TEMPORARY) + done()}),
            (addresses{"2001:db8::3", "2001:db8::4"}));
}

TEST_F(kernel_list, has_an_address_that_is_stable_on_one_interface) {
  EXPECT_EQ(stable({entry(address("2001:db8::1") + flags(IFA_F_TEMPORARY)) + entry(address("2001:db8::1")) +
                    entry(address("2001:db8::2")) + entry(address("2001:db8::2") + flags(IFA_F_TEMPORARY)) + done()}),
            (addresses{"2001:db8::1", "2001:db8::2"}));
}

TEST_F(kernel_list, has_the_own_address_and_not_the_peers) {
  EXPECT_EQ(stable({entry(address("2001:db8::a") + address("2001:db8::1", IFA_LOCAL)) +
                    entry(address("2001:db8::2", IFA_LOCAL) + address("2001:db8::b")) + done()}),
            (addresses{"2001:db8::1", "2001:db8::2"}));
}

TEST_F(kernel_list, ignores_other_attributes_and_messages) {
  EXPECT_EQ(stable({entry(address("2001:db8::c", IFA_ANYCAST)) + entry("") +
                    entry(address("2001:db8::1") + attribute(IFA_CACHEINFO, bytes(16, '\xff')) +
                          attribute(IFA_LABEL, "eth0")) +
                    entry(address("2001:db8::d"), 0, RTM_DELADDR) + done()}),
            addresses{"2001:db8::1"});
}

TEST_F(kernel_list, comes_in_any_number_of_parts) {
  EXPECT_EQ(stable({entry(address("2001:db8::1")), "", entry(address("2001:db8::2")) + entry(address("2001:db8::3")),
                    entry(address("2001:db8::4")) + done(), entry(address("2001:db8::5"))}),
            (addresses{"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4"}));
  EXPECT_EQ(k.parts.size(), 1U);
}

TEST_F(kernel_list, fills_the_largest_part) {
  bytes part;
  addresses expected;
  for (int n = 1; part.size() + 2 * entry(address("2001:db8::1")).size() <= 32768; ++n) {
    char text[INET6_ADDRSTRLEN];
    std::snprintf(text, sizeof text, "2001:db8::%x", static_cast<unsigned>(n));
    part += entry(address(text));
    expected.insert(text);
  }
  EXPECT_EQ(stable({part + done()}), expected);
}

TEST_F(kernel_list, is_read_again_when_it_changed_meanwhile) {
  const bytes torn = entry(address("2001:db8::9"), 0, RTM_NEWADDR, NLM_F_MULTI | NLM_F_DUMP_INTR) + done();
  const bytes torn_at_end = entry(address("2001:db8::8")) + done(NLM_F_MULTI | NLM_F_DUMP_INTR);
  EXPECT_EQ(stable({torn, torn_at_end, torn, torn, entry(address("2001:db8::1")) + done()}), addresses{"2001:db8::1"});
  EXPECT_EQ(k.requests.size(), 5U);
  EXPECT_EQ(k.closed, 1);
}

TEST_F(kernel_list, is_read_five_times_at_most) {
  const bytes torn = done(NLM_F_MULTI | NLM_F_DUMP_INTR);
  EXPECT_EQ(error_of({torn, torn, torn, torn, torn, torn, torn}), EAGAIN);
  EXPECT_EQ(k.requests.size(), 5U);
  EXPECT_EQ(k.closed, 1);
}

TEST_F(kernel_list, passes_on_what_the_kernel_refuses) {
  EXPECT_EQ(error_of({failure(EPERM)}), EPERM);
  EXPECT_EQ(k.closed, 1);
  EXPECT_EQ(error_of({}), ENOBUFS);
  EXPECT_EQ(k.closed, 2);
  k.send_error = ECONNREFUSED;
  EXPECT_EQ(error_of({done()}), ECONNREFUSED);
  EXPECT_EQ(k.closed, 3);
  k.socket_result = -EMFILE;
  EXPECT_EQ(error_of({done()}), EMFILE);
  EXPECT_EQ(k.closed, 3) << "there is nothing to close";
}

TEST(address_filters, all_passes_everything) {
  EXPECT_EQ(filtered_by(address_filter::all, "fd00::1,2001:db8::1"), "fd00::1,2001:db8::1");
  EXPECT_EQ(filtered_by(address_filter::all, "null"), "null");
  EXPECT_EQ(filtered_by(address_filter::all, ""), "");
}

TEST(address_filters, global_removes_unique_local_addresses) {
  EXPECT_EQ(filtered_by(address_filter::global, "fd00::1,2001:db8::1,fc00::2,2001:db8::2"), "2001:db8::1,2001:db8::2");
  EXPECT_EQ(filtered_by(address_filter::global, "fbfc::1,fe00::1,1fc:fc00::"), "fbfc::1,fe00::1,1fc:fc00::");
  EXPECT_EQ(filtered_by(address_filter::global, "2001:db8::1"), "2001:db8::1");
  EXPECT_EQ(filtered_by(address_filter::global, "fd12:3456::1"), "null");
  EXPECT_EQ(filtered_by(address_filter::global, "no address,2001:db8::1"), "2001:db8::1");
  EXPECT_EQ(filtered_by(address_filter::global, "null"), "null");
}

TEST(address_filters, stable_removes_what_the_kernel_does_not_call_stable) {
  const addresses known = {"2001:db8::1", "2001:db8::3", "fd00::1"};
  EXPECT_EQ(filtered_by(address_filter::stable, "2001:db8::1,2001:db8::2,2001:db8::3,fd00::1", known),
            "2001:db8::1,2001:db8::3");
  EXPECT_EQ(filtered_by(address_filter::stable, "2001:db8::2", known), "null");
  EXPECT_EQ(filtered_by(address_filter::stable, "null", known), "null");
}

TEST(address_filters, remove_the_last_address_of_a_value_that_fills_its_field) {
  std::string value = "2001:db8::1";
  while (value.size() + 13 < DAC_VALUE_SIZE - 1) value += ",2001:db8::" + std::to_string(10 + value.size() % 90);
  const std::string begin = value;
  value += ",2001:db8::";
  value.resize(DAC_VALUE_SIZE - 2, '7');
  for (const address_filter f : {address_filter::all, address_filter::global}) {
    EXPECT_EQ(filtered_by(f, value), value) << "one byte less";
    EXPECT_EQ(filtered_by(f, value + '7'), begin);
  }
}
