// examples/publish-mqtt against a real broker: TLS, passwords, access lists, crashes and outages. dachost is played by
// a program that prints the values of the test, so that each value sent can be compared with those received.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <stdexcept>

#include "tests/support/network.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace {

constexpr char publish_mqtt[] = SOURCE_DIR "/examples/publish-mqtt";
constexpr char topic[] = "ip6dns/gateway";

void shell(const std::string& command) {
  const ending e = process({"sh", "-ec", command}).end();
  if (e.status != 0) throw std::runtime_error(command + ": " + e.out + e.err);
}

/// mosquitto on 127.0.0.1 with TLS on 8883, plain on 1883. Its state is in the directory `dir`.
class broker {
 public:
  broker(const scratch& dir, const std::string& rules)
      : _state(dir.path("state")),
        _conf(dir.file("user root\npersistence true\npersistence_location " + dir.path("state/") +
                           "\nautosave_interval 1\nautosave_on_changes true\nlistener 1883 127.0.0.1\n"
                           "listener 1884\nlistener 8883 127.0.0.1\ncafile " +
                           dir.path("ca.crt") + "\ncertfile " + dir.path("broker.crt") + "\nkeyfile " +
                           dir.path("broker.key") + '\n' + rules,
                       "mosquitto.conf")) {
    mkdir(_state.c_str(), 0700);
  }

  void start() {
    _process = std::make_unique<process>(texts{"/usr/sbin/mosquitto", "-c", _conf});
    _process->await_err(" running");
  }
  void signal(int sig) const { _process->signal(sig); }
  void await_report(const std::string& text) const { _process->await_err(text); }
  void kill() {
    _process->signal(SIGKILL);
    EXPECT_EQ(_process->end_unread(), -SIGKILL);
  }
  /// Waits until the broker's state on the disk contains the text.
  void saves(const std::string& text) const {
    EXPECT_TRUE(eventually([&] { return read_file(_state + "/mosquitto.db").find(text) != std::string::npos; }));
  }
  ~broker() {
    if (_process) _process->signal(SIGTERM);
    if (_process) _process->end_unread();
  }
  broker(const broker&) = delete;
  broker& operator=(const broker&) = delete;

 private:
  std::string _state;
  std::string _conf;
  std::unique_ptr<process> _process;
};

/// Sees what is published on the topic and below it, from now on.
class subscriber {
 public:
  explicit subscriber(const texts& options = {}) : _process(with_options(options)) {}

  void await(const std::string& line) { _process.await_out(line + '\n'); }
  void await_value(int number) {
    await(std::string(topic) + " {\"event\":\"value\",\"value\":\"" + std::to_string(number) + "\"}");
  }
  void await_status(const std::string& status) { await(std::string(topic) + "/status " + status); }
  /// What has been received. Ends the subscriber.
  std::string received() {
    _process.signal(SIGTERM);
    return _process.end().out;
  }
  /// The numbers of the values received, in order. Ends the subscriber.
  std::vector<int> values() {
    std::vector<int> all;
    for (const std::string& line : lines(received()))
      if (const size_t at = line.find(R"("value":")"); at != std::string::npos) all.push_back(std::atoi(&line[at + 9]));
    return all;
  }

 private:
  process _process;

  static texts with_options(const texts& options) {
    texts argv = {"mosquitto_sub", "-h", "127.0.0.1", "-v", "-q", "1", "-t", std::string(topic) + "/#"};
    argv.insert(argv.end(), options.begin(), options.end());
    return argv;
  }
};

/// The message that the broker has retained on the topic followed by `suffix`, as a line; "" if there is none.
std::string retained(const std::string& suffix) {
  return process({"mosquitto_sub", "-h", "127.0.0.1", "-t", topic + suffix, "--retained-only", "-C", "1", "-W", "1"})
      .end()
      .out;
}

size_t count(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

class mqtt : public testing::Test {
 protected:
  scratch dir;

  mqtt() {
    mkdir(dir.path("bin").c_str(), 0700);
    set_dachost("echo $$ >" + dir.path("dachost.pid") + "\nexec tail -n +1 -f " + dir.path("values"));
    dir.file("", "values");
  }

  void set_dachost(const std::string& script) const {
    if (chmod(dir.file("#!/bin/sh\n" + script + '\n', "bin/dachost").c_str(), 0700) != 0)
      throw std::runtime_error("cannot make the program executable");
  }

  /// A certificate authority and the broker's certificate.
  void certify() const {
    const std::string quiet = " 2>/dev/null; ", key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";
    shell("cd " + dir.path("") + "; openssl req -x509 -days 2 -subj /CN=authority" + key +
          "-keyout ca.key -out ca.crt" + quiet + "openssl req -subj /CN=127.0.0.1" + key +
          "-keyout broker.key -out broker.csr" + quiet +
          "printf 'subjectAltName=IP:127.0.0.1\\n' >extension; "
          "openssl x509 -req -in broker.csr -CA ca.crt -CAkey ca.key -days 2 -extfile extension -out broker.crt" +
          quiet);
  }

  /// Makes dachost print these values, in one piece.
  template <class... Int>
  void add(Int... numbers) const {
    std::ofstream values(dir.path("values"), std::ios::app);
    ((values << "{\"event\":\"value\",\"value\":\"" << numbers << "\"}\n"), ...);
  }

  std::unique_ptr<process> publisher(const texts& options, const std::string& script = publish_mqtt) const {
    texts argv = {"env",
                  "PATH=" + dir.path("bin") + ':' + std::getenv("PATH"),
                  "HOME=" + dir.path(""),
                  script,
                  "ip6dns.conf",
                  topic,
                  "-h",
                  "127.0.0.1"};
    argv.insert(argv.end(), options.begin(), options.end());
    return std::make_unique<process>(argv);
  }
  /// A program in Python that listens at the broker's port, with `server`, prints "listening" and then does this.
  static process scripted_broker(const std::string& behaviour) {
    const std::string start =
        "import re, select, socket, time\n"
        "server = socket.create_server(('127.0.0.1', 1883))\n"
        "print('listening')\n";
    return process({"python3", "-u", "-c", start + behaviour});
  }
  /// The script with another number of seconds for one of its constants.
  std::string with_constant(const std::string& name, int before, int after) const {
    std::string copy = dir.path("publish-mqtt");
    const std::string assigned = '^' + name + " = ";
    const std::string number = std::to_string(after);
    shell("sed 's/" + assigned + std::to_string(before) + " /" + name + " = " + number + " /' " + publish_mqtt + " >" +
          copy + "; chmod +x " + copy + "; grep -q '" + assigned + number + " ' " + copy);
    return copy;
  }
  std::string impatient() const { return with_constant("LONGEST_PAUSE", 60, 2); }
  texts tls() const { return {"--cafile", dir.path("ca.crt")}; }

  /// The process that plays dachost, once it runs.
  pid_t dachost() const {
    pid_t id = 0;
    if (!eventually([&] { return static_cast<bool>(std::ifstream(dir.path("dachost.pid")) >> id); }))
      throw std::runtime_error("dachost does not run");
    return id;
  }
  static bool is_gone(pid_t id) {
    return eventually([&] { return kill(id, 0) != 0; });
  }

  /// The end of a publisher that refuses its options. Stops one that retries.
  static ending end_at_the_start(process& p) {
    p.await_err("\n");
    if (p.err().starts_with("usage:")) return p.end();
    p.signal(SIGTERM);
    return p.end();
  }

  static std::string stop(process& p) {
    p.signal(SIGTERM);
    return p.end().err;
  }

  static void print(const char* scenario, int first, int last, const std::vector<int>& received) {
    int lost = 0, repeated = 0;
    for (int n = first; n <= last; ++n) {
      const auto times = std::count(received.begin(), received.end(), n);
      lost += times == 0;
      repeated += static_cast<int>(times > 1 ? times - 1 : 0);
    }
    std::printf("%-28s sent %d received %zu lost %d repeated %d\n", scenario, last - first + 1, received.size(), lost,
                repeated);
  }
};

constexpr char connection_lost[] = "publish-mqtt: 127.0.0.1:1883: connection lost; retrying\n";
constexpr char open_to_all[] = "allow_anonymous true\n";

}  // namespace

TEST_F(mqtt, values_arrive_over_TLS_once_and_in_order) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    subscriber s;
    const auto p = publisher(tls(), with_constant("DRAIN_SECONDS", 5, 1000));  // it ends when all is confirmed
    s.await_status("online");
    for (int n = 1; n <= 20; ++n) {
      add(n);
      s.await_value(n);
    }
    EXPECT_EQ(stop(*p), "");
    s.await_status("offline");
    b.await_report("Client ip6dns-ip6dns-gateway disconnected.");
    std::vector<int> expected(20);
    std::iota(expected.begin(), expected.end(), 1);
    const auto received = s.values();
    print("steady", 1, 20, received);
    EXPECT_EQ(received, expected);
  });
}

TEST_F(mqtt, newest_value_arrives_after_the_broker_is_killed) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher(tls());
    {
      subscriber s;
      add(1);
      s.await_value(1);
    }
    b.kill();
    p->await_err("; retrying\n");
    add(2);
    add(3);
    b.start();
    subscriber s;
    s.await_value(3);
    s.await_status("online");
    add(4);
    s.await_value(4);
    p->await_err(": connected again after 00:00:");
    const std::string err = stop(*p);
    EXPECT_EQ(count(err, ": connected again after 00:00:"), 1U) << err;
    EXPECT_EQ(count(err, "; retrying"),
              count(err, "connection lost; retrying") + count(err, "Connection refused; retrying"))
        << err;
    EXPECT_LE(count(err, "; retrying"), 2U) << err;
    auto received = s.values();
    // A broker that had saved the first value sends it to the new subscriber before the publisher is back.
    if (!received.empty() && received.front() == 1) received.erase(received.begin());
    print("broker killed, newest", 3, 4, received);
    EXPECT_EQ(received, (std::vector<int>{3, 4}));
  });
}

TEST_F(mqtt, newest_value_is_sent_again_when_the_broker_has_lost_it) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher(tls());
    add(1);
    subscriber().await_value(1);
    b.kill();
    shell("rm -rf " + dir.path("state/*"));
    b.start();
    subscriber().await_value(1);
    stop(*p);
  });
}

TEST_F(mqtt, online_expires_when_the_publisher_ends_during_an_outage) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({}, with_constant("ONLINE_SECONDS", 300, 9));
    subscriber().await_status("online");
    b.saves("online");
    b.kill();
    p->signal(SIGKILL);
    EXPECT_EQ(p->end_unread(), -SIGKILL);
    b.start();
    EXPECT_TRUE(eventually([&] { return retained("/status").empty(); })) << retained("/status");
  });
}

TEST_F(mqtt, online_stays_while_the_publisher_is_connected) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({"-k", "9"}, with_constant("ONLINE_SECONDS", 300, 9));
    subscriber s;
    const std::string line = std::string(topic) + "/status online";
    s.await(line + '\n' + line + '\n' + line + '\n' + line + '\n' + line);  // one every three seconds
    EXPECT_EQ(retained("/status"), "online\n");
    EXPECT_EQ(stop(*p), "");
    EXPECT_EQ(retained("/status"), "offline\n");
    process({"sleep", "10"}).end();
    EXPECT_EQ(retained("/status"), "offline\n") << "it does not expire";
  });
}

TEST_F(mqtt, broker_that_is_away_at_the_start_is_waited_for) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    const auto p = publisher(tls());
    add(1);
    p->await_err("publish-mqtt: 127.0.0.1:8883: Connection refused; retrying\n");
    b.start();
    subscriber s;
    s.await_value(1);
    p->await_err("connected again");
    EXPECT_EQ(count(stop(*p), "connected again"), 1U);
  });
}

TEST_F(mqtt, broker_that_refuses_MQTT_5_gets_MQTT_3) {
  const struct {
    const char *label, *answer;
  } rows[] = {{"closes without an answer", ""},
              {"answers as MQTT 3.1.1 says", "20020001"},
              {"answers as MQTT 5 says", "2003008400"}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.label);
    in_new_network([&] {
      certify();
      broker b(dir, open_to_all);
      b.start();
      process old_broker({"python3", "-c", R"(
import socket, sys, threading
def pump(source, sink):
    while data := source.recv(65536):
        sink.sendall(data)
    sink.close()
server = socket.create_server(("127.0.0.1", 1885))
print("listening", flush=True)
while True:
    client, _ = server.accept()
    connect = client.recv(65536)
    if connect[8] == 5:
        client.sendall(bytes.fromhex(sys.argv[1]))
        client.close()
        continue
    real = socket.create_connection(("127.0.0.1", 1883))
    real.sendall(connect)
    threading.Thread(target=pump, args=(client, real), daemon=True).start()
    threading.Thread(target=pump, args=(real, client), daemon=True).start()
)",
                          r.answer});
      old_broker.await_out("listening");
      subscriber s;
      const auto p = publisher({"-p", "1885"});
      s.await_status("online");
      add(1);
      s.await_value(1);
      EXPECT_EQ(stop(*p), "");
      old_broker.signal(SIGKILL);
      old_broker.end_unread();
    });
  }
}

TEST_F(mqtt, attempts_begin_with_MQTT_5) {
  in_new_network([this] {
    process closing = scripted_broker(R"(
while True:
    client = server.accept()[0]
    print("protocol", client.recv(4096)[8])
    client.close()
)");
    closing.await_out("listening");
    const auto p = publisher({});
    closing.await_out("protocol 5\nprotocol 4\nprotocol 5\nprotocol 4\n");
    stop(*p);
  });
}

TEST_F(mqtt, will_is_retained_with_QoS_1) {
  in_new_network([this] {
    process reading = scripted_broker(R"(
flags = server.accept()[0].recv(4096)[9]
print("will", flags >> 2 & 1, "QoS", flags >> 3 & 3, "retained", flags >> 5 & 1)
time.sleep(1000)
)");
    reading.await_out("listening");
    const auto p = publisher({});
    reading.await_out("will 1 QoS 1 retained 1\n");
    stop(*p);
  });
}

TEST_F(mqtt, reason_that_the_broker_sends_with_a_disconnect_is_reported) {
  in_new_network([this] {
    process leaving = scripted_broker(R"(
client = server.accept()[0]
client.recv(4096)
client.sendall(bytes.fromhex("2003000000" "e0068b041f000162"))  # Server shutting down, with the reason "b"
time.sleep(1000)
)");
    leaving.await_out("listening");
    const auto p = publisher({});
    p->await_err("; retrying\n");
    EXPECT_EQ(stop(*p), "publish-mqtt: 127.0.0.1:1883: Server shutting down; retrying\n");
  });
}

TEST_F(mqtt, value_waits_for_the_confirmation_of_the_one_before) {
  in_new_network([this] {
    process slow = scripted_broker(R"(
client = server.accept()[0]
client.recv(4096)
client.sendall(bytes.fromhex("2003000000"))
while data := client.recv(4096):
    for identifier, number in re.findall(rb'ip6dns/gateway(..)\x05\x02....[{]"event":"value","value":"(.)', data, re.S):
        print("value", number.decode())
        print("too early" if select.select([client], [], [], 3)[0] else "confirmed")
        client.sendall(b"\x40\x02" + identifier)
)");
    slow.await_out("listening");
    const auto p = publisher({});
    add(1);
    slow.await_out("value 1\n");
    add(2, 3);
    slow.await_out("value 3\nconfirmed\n");
    p->signal(SIGTERM);
    slow.signal(SIGKILL);
    slow.end_unread();
    p->end();
    EXPECT_EQ(slow.out(), "listening\nvalue 1\nconfirmed\nvalue 3\nconfirmed\n");
  });
}

TEST_F(mqtt, wrong_password_is_reported_once) {
  in_new_network([this] {
    certify();
    shell("mosquitto_passwd -c -b " + dir.path("passwords") + " gateway right");
    broker b(dir, "allow_anonymous false\npassword_file " + dir.path("passwords") + '\n');
    b.start();
    const auto p = publisher({"--cafile", dir.path("ca.crt"), "-u", "gateway", "-P", "wrong"});
    p->await_err("publish-mqtt: 127.0.0.1:8883: Not authorized; retrying\n");
    EXPECT_EQ(count(stop(*p), "Not authorized"), 1U);
  });
}

TEST_F(mqtt, password_is_read_from_the_file_of_the_clients) {
  in_new_network([this] {
    certify();
    shell("mosquitto_passwd -c -b " + dir.path("passwords") + " gateway 'right one'");
    mkdir(dir.path(".config").c_str(), 0700);
    dir.file("-u gateway\n-P right one\n", ".config/mosquitto_pub");
    broker b(dir, "allow_anonymous false\npassword_file " + dir.path("passwords") + '\n');
    b.start();
    const auto p = publisher(tls());
    add(1);
    subscriber({"-u", "gateway", "-P", "right one"}).await_value(1);
    EXPECT_EQ(stop(*p), "");
  });
}

TEST_F(mqtt, wrong_line_of_the_file_of_the_clients_is_named) {
  mkdir(dir.path(".config").c_str(), 0700);
  const struct {
    std::string text, message;
  } rows[] = {
      {"# site\n--foo bar\n", "line 2: unrecognized arguments: --foo bar"},
      {"-p 8883 # TLS\n", "line 1: argument -p: expected a number from 1 to 65535, got '8883 # TLS'"},
      {"\n-h ::1 -p 8883\n", "line 2: expected one option per line, got '-h ::1 -p 8883'"},
      {"-h\n", "line 1: argument -h: expected one argument"},
  };
  const std::string path = dir.file("-P \xff\n", ".config/mosquitto_pub");
  EXPECT_EQ(count(end_at_the_start(*publisher({})).err, "error: " + path + ": not UTF-8: "), 1U);
  for (const auto& r : rows) {
    const std::string file = dir.file(r.text, ".config/mosquitto_pub");
    const auto p = publisher({});
    const ending e = end_at_the_start(*p);
    EXPECT_EQ(e.status, 2) << e.err;
    EXPECT_EQ(count(e.err, "publish-mqtt: error: " + file + ": " + r.message + '\n'), 1U) << e.err;
  }
}

TEST_F(mqtt, file_of_the_clients_that_cannot_be_read_is_named) {
  mkdir(dir.path(".config").c_str(), 0755);
  const std::string file = dir.file("-u gateway\n", ".config/mosquitto_pub");
  const std::string copy = dir.file(read_file(publish_mqtt), "copy");  // the other user may not reach the sources
  ASSERT_EQ(chmod(dir.path("").c_str(), 0755) + chmod(copy.c_str(), 0755) + chmod(file.c_str(), 0), 0);
  texts command = {copy, "gw.conf", "topic"};
  if (geteuid() == 0) command.insert(command.begin(), {"setpriv", "--reuid=65534", "--clear-groups"});
  command.insert(command.begin(), {"env", "HOME=" + dir.path("")});
  process unreadable(command);
  const ending e = end_at_the_start(unreadable);
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(count(e.err, "publish-mqtt: error: " + file + ": cannot be read: Permission denied\n"), 1U) << e.err;

  std::filesystem::remove(file);
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  const auto blocking = publisher({});
  EXPECT_EQ(count(end_at_the_start(*blocking).err, "error: " + file + ": not a regular file\n"), 1U);
}

TEST_F(mqtt, options_of_the_command_line_replace_those_of_the_file) {
  in_new_network([this] {
    mkdir(dir.path(".config").c_str(), 0700);
    dir.file("-u gateway\n-p 1885\n-P a -p b\n", ".config/mosquitto_pub");
    const auto p = publisher({}), q = publisher({"-p", "1886"});
    p->await_err("publish-mqtt: 127.0.0.1:1885: Connection refused; retrying\n");
    q->await_err("publish-mqtt: 127.0.0.1:1886: Connection refused; retrying\n");
    stop(*p);
    stop(*q);
  });
}

TEST_F(mqtt, publishers_with_one_identifier_back_off) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    subscriber s;
    const auto p = publisher({"-i", "twin"}), q = publisher({"-i", "twin"});
    for (process* each : {p.get(), q.get()}) each->await_err(connection_lost);
    process({"sleep", "15"}).end();
    for (process* each : {p.get(), q.get()}) EXPECT_EQ(stop(*each), connection_lost);
    const size_t connections = count(s.received(), "/status online\n");
    EXPECT_GE(connections, 3U);
    EXPECT_LE(connections, 12U);  // with a connection per second there are more than 15
  });
}

TEST_F(mqtt, takeovers_are_reported_once_and_their_end_once) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto setting = impatient();
    const auto p = publisher({"-i", "twin"}, setting), q = publisher({"-i", "twin"}, setting);
    for (process* each : {p.get(), q.get()}) each->await_err(connection_lost);
    process({"sleep", "8"}).end();
    EXPECT_EQ(stop(*q), connection_lost);
    p->await_err("connected again");
    const std::string err = stop(*p);
    ASSERT_EQ(lines(err).size(), 2U) << err;
    EXPECT_TRUE(err.starts_with(connection_lost)) << err;
  });
}

TEST_F(mqtt, each_reason_of_an_outage_is_reported_once) {
  in_new_network([this] {
    const texts closing_broker = {"python3", "-c", R"(
import socket
server = socket.create_server(("127.0.0.1", 1883))
while True:
    server.accept()[0].close()
    print("closed", flush=True)
)"};
    const auto p = publisher({}, impatient());
    p->await_err("Connection refused; retrying\n");
    for (const bool again : {false, true}) {
      process closing(closing_broker);
      closing.await_out("closed\nclosed\nclosed\n");
      if (!again) p->await_err("connection lost; retrying\n");
      closing.signal(SIGKILL);
      closing.end_unread();
      process({"sleep", "3"}).end();
    }
    const std::string err = stop(*p);
    EXPECT_EQ(lines(err).size(), 2U) << err;
  });
}

TEST_F(mqtt, refused_topic_is_reported_once) {
  in_new_network([this] {
    certify();
    broker b(dir, std::string(open_to_all) + "acl_file " +
                      dir.file("topic readwrite ip6dns/gateway/status\ntopic read #\n", "acl") + '\n');
    b.start();
    const auto p = publisher(tls());
    add(1);
    p->await_err("publish-mqtt: ip6dns/gateway: Not authorized\n");
    add(2);
    subscriber s;
    s.await_status("online");
    const std::string err = stop(*p);
    EXPECT_EQ(err, "publish-mqtt: ip6dns/gateway: Not authorized\n");
  });
}

TEST_F(mqtt, status_is_online_when_the_access_list_is_corrected) {
  in_new_network([this] {
    certify();
    const std::string list = dir.file("topic read #\n", "acl");
    broker b(dir, std::string(open_to_all) + "acl_file " + list + '\n');
    b.start();
    const auto p = publisher(tls());
    add(1);
    p->await_err("publish-mqtt: ip6dns/gateway: Not authorized\n");
    p->await_err("publish-mqtt: ip6dns/gateway/status: Not authorized\n");
    subscriber s;
    dir.file("topic readwrite #\n", "acl");
    b.signal(SIGHUP);
    b.await_report("Reloading config");
    process({"sleep", "1"}).end();
    add(2);
    s.await_value(2);
    s.await_status("online");
    p->await_err("publish-mqtt: ip6dns/gateway/status: accepted again\n");
    EXPECT_EQ(count(stop(*p), "accepted again"), 2U);
  });
}

TEST_F(mqtt, untrusted_certificate_is_refused) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({"-p", "8883"});
    p->await_err("CERTIFICATE_VERIFY_FAILED");
    stop(*p);
  });
}

TEST_F(mqtt, publisher_without_the_required_certificate_retries) {
  in_new_network([this] {
    certify();
    const std::string refusal = "publish-mqtt: 127.0.0.1:8883: [SSL: TLSV13_ALERT_CERTIFICATE_REQUIRED]";
    const auto p = publisher(tls(), impatient());
    for (int n = 1; n <= 2; ++n) {
      broker strict(dir, std::string(open_to_all) + "require_certificate true\n");
      strict.start();
      add(10 * n);
      p->await_err(refusal);
      process({"sleep", "5"}).end();
      strict.kill();
      broker open(dir, open_to_all);
      open.start();
      subscriber s;
      s.await_value(10 * n);
      p->await_err("connected again");
      if (n == 2) break;
      open.kill();
    }
    const std::string err = stop(*p);
    EXPECT_EQ(count(err, "Traceback"), 0U) << err;
    EXPECT_LE(count(err, refusal), 2U) << err << "once per outage";
  });
}

TEST_F(mqtt, pauses_between_attempts_become_longer) {
  in_new_network([this] {
    process refusing = scripted_broker(R"(
while True:
    client = server.accept()[0]
    client.recv(4096)
    client.sendall(bytes.fromhex("2003008700"))  # Not authorized
    client.recv(4096)
    print("attempt")
)");
    refusing.await_out("listening");
    const auto p = publisher({});
    refusing.await_out("attempt\nattempt\n");
    process({"sleep", "12"}).end();
    stop(*p);
    refusing.signal(SIGKILL);
    EXPECT_LE(count(refusing.end().out, "attempt"), 7U) << "with an attempt per second there are more than 12";
  });
}

TEST_F(mqtt, second_loss_is_over_only_after_a_long_connection) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({});
    subscriber().await_status("online");
    for (int n = 1; n <= 2; ++n) {
      b.kill();
      p->await_err("; retrying\n");
      shell("rm -rf " + dir.path("state/*"));
      b.start();
      subscriber().await_status("online");
      if (n == 1) p->await_err("connected again");
    }
    process({"sleep", "8"}).end();  // three seconds more than after the first loss
    EXPECT_EQ(count(stop(*p), "connected again"), 1U);
  });
}

// With pauses of five seconds, a connection is stable after ten.
TEST_F(mqtt, loss_after_a_stable_connection_is_the_first_again) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({}, with_constant("LONGEST_PAUSE", 60, 5));
    subscriber().await_status("online");
    for (const char* seconds : {"12", "8"}) {
      b.kill();
      p->await_err("; retrying\n");
      shell("rm -rf " + dir.path("state/*"));
      b.start();
      subscriber().await_status("online");
      process({"sleep", seconds}).end();
    }
    EXPECT_EQ(count(stop(*p), "connected again"), 2U);
  });
}

TEST_F(mqtt, silent_broker_is_reported_after_the_seconds_of_k) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({"-k", "14"});
    subscriber().await_status("online");
    process({"sleep", "10"}).end();  // within these seconds the publisher sends a ping
    b.signal(SIGSTOP);
    const std::string silence = "publish-mqtt: 127.0.0.1:1883: silent for 14 seconds; retrying\n";
    p->await_err(silence);
    b.signal(SIGCONT);
    p->await_err(": connected again after ");
    const std::string err = stop(*p), after = "connected again after 00:00:";
    EXPECT_TRUE(err.starts_with(silence)) << "nothing was reported before\n" << err;
    const size_t at = err.find(after);
    ASSERT_NE(at, std::string::npos) << err;
    EXPECT_GE(std::atoi(&err[at + after.size()]), 14) << "the outage begins with the silence\n" << err;
  });
}

TEST_F(mqtt, broker_that_never_accepts_the_client_is_reported_after_the_seconds_of_k) {
  in_new_network([this] {
    process mute = scripted_broker(R"(
client = server.accept()
time.sleep(1000)
)");
    mute.await_out("listening");
    const auto p = publisher({"-k", "12"});
    p->await_err("publish-mqtt: 127.0.0.1:1883: silent for 12 seconds; retrying\n");
    stop(*p);
  });
}

TEST_F(mqtt, message_without_a_confirmation_is_reported_after_the_seconds_of_k) {
  in_new_network([this] {
    process forgetful = scripted_broker(R"(
client = server.accept()[0]
client.recv(4096)
client.sendall(bytes.fromhex("2003000000"))
while data := client.recv(4096):
    if data.endswith(bytes.fromhex("c000")):
        client.sendall(bytes.fromhex("d000"))  # the answer to a ping
time.sleep(1000)
)");
    forgetful.await_out("listening");
    const auto p = publisher({"-k", "8"});
    p->await_err("; retrying\n");
    EXPECT_EQ(stop(*p), "publish-mqtt: 127.0.0.1:1883: no confirmation for 8 seconds; retrying\n");
  });
}

TEST_F(mqtt, publisher_can_be_stopped_during_a_TLS_handshake) {
  in_new_network([this] {
    certify();
    process mute({"python3", "-u", "-c", R"(
import socket, time
server = socket.create_server(("127.0.0.1", 8883))
print("listening")
client = server.accept()[0]
print("client:", client.recv(9))
time.sleep(1000)
)"});
    mute.await_out("listening");
    const auto p = publisher({"--cafile", dir.path("ca.crt"), "-k", "65535"});
    mute.await_out("client:");
    EXPECT_EQ(stop(*p), "");
  });
}

// As a broker does while two clients have one identifier. The library closes a connection on which it cannot send.
TEST_F(mqtt, connection_that_the_broker_closes_at_once_is_made_again) {
  in_new_network([this] {
    process curt({"python3", "-u", "-c", R"(
import socket
server = socket.create_server(("127.0.0.1", 1883))
for number in range(1, 10):
    client = server.accept()[0]
    client.recv(4096)
    client.sendall(bytes.fromhex("2003000000"))
    client.close()
    print("connection", number)
)"});
    add(1);
    const auto p = publisher({}, impatient());
    curt.await_out("connection 4\n");
    EXPECT_EQ(count(stop(*p), connection_lost), 1U);
  });
}

TEST_F(mqtt, value_on_a_link_that_was_cut_arrives_when_it_is_back) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    shell("ip link set lo up; ip addr add 10.9.9.1/24 dev lo");
    const auto p = publisher({"-h", "10.9.9.1", "-p", "1884", "-k", "6"});
    subscriber s;
    add(1);
    s.await_value(1);
    shell("ip addr del 10.9.9.1/24 dev lo");  // segments are lost, the connection stays
    add(2);
    p->await_err("; retrying\n");
    shell("ip addr add 10.9.9.1/24 dev lo");
    s.await_value(2);
    p->await_err("connected again");
    const std::string err = stop(*p);
    // An attempt to connect before the address is back has a second reason.
    EXPECT_EQ(count(err, "; retrying") - count(err, "Network is unreachable; retrying"), 1U) << err;
    print("link cut", 1, 2, s.values());
  });
}

// The value exceeds what a connection stores: the rest can be sent when the broker reads again.
TEST_F(mqtt, value_that_does_not_fit_into_the_connection_arrives) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({"-k", "100"});  // a ping would also send the rest
    subscriber s({"-F", "%t %l"});
    s.await(std::string(topic) + "/status 6");
    b.signal(SIGSTOP);
    std::ofstream(dir.path("values"), std::ios::app) << std::string(5'000'000, 'x') << '\n';
    shell("until ss -nt dport = :1883 | awk '$3 + 0 > 65536 { full = 1 } END { exit !full }'; do sleep 0.1; done");
    process({"sleep", "1"}).end();
    b.signal(SIGCONT);
    s.await(std::string(topic) + " 5000000");
    EXPECT_EQ(stop(*p), "");
  });
}

TEST_F(mqtt, values_pass_a_broker_with_a_full_disk) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("full", dir.path("state").c_str(), "tmpfs", 0, "size=4k"), 0);
    std::ofstream(dir.path("state/filler")) << std::string(8192, 'x');
    b.start();
    const auto p = publisher(tls());
    subscriber s;
    for (int n = 1; n <= 5; ++n) {
      add(n);
      s.await_value(n);
    }
    b.kill();
    add(6);
    b.start();
    subscriber late;
    late.await_value(6);
    stop(*p);
    const auto received = s.values();
    print("full disk", 1, 5, received);
  });
}

TEST_F(mqtt, killed_publisher_leaves_no_process_and_is_offline) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    subscriber s;
    const auto p = publisher(tls());
    add(1);
    s.await_value(1);
    const pid_t child = dachost();
    p->signal(SIGKILL);
    EXPECT_EQ(p->end_unread(), -SIGKILL);
    s.await_status("offline");
    EXPECT_TRUE(is_gone(child));
  });
}

TEST_F(mqtt, stopped_publisher_leaves_no_process) {
  in_new_network([this] {
    const auto p = publisher({});
    p->await_err("; retrying\n");
    const pid_t child = dachost();
    p->signal(SIGTERM);
    EXPECT_EQ(p->end().status, 0);
    EXPECT_TRUE(is_gone(child));
  });
}

TEST_F(mqtt, publisher_asks_dachost_for_values_and_the_picked_addresses) {
  set_dachost("echo \"$*\" >" + dir.path("arguments"));
  publisher({"--pick", "stable", "--interface", "eth0", "--interface", "!eth1"})->end();
  EXPECT_EQ(read_file(dir.path("arguments")),
            "run --json --events value --pick=stable --interface=eth0 --interface=!eth1 -- ip6dns.conf\n");
}

TEST_F(mqtt, publisher_ends_with_the_status_of_dachost) {
  in_new_network([this] {
    set_dachost("echo 'dachost: x: not found' >&2; exit 78");
    const auto p = publisher({});
    EXPECT_EQ(p->end().status, 78);
  });
}

TEST_F(mqtt, value_that_dachost_prints_before_its_end_arrives) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const std::string value = R"({"event":"value","value":"1"})";
    set_dachost("echo '" + value + "'");
    const ending e = publisher({})->end();
    EXPECT_EQ(e.err, "");
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(retained(""), value + '\n');
    EXPECT_EQ(retained("/status"), "offline\n");
  });
}

TEST_F(mqtt, missing_program_or_library_is_named) {
  const std::string paho = dir.file("", "paho.py"), message = "publish-mqtt: the Python module paho.mqtt is missing;";
  const ending library = process({"env", "PYTHONPATH=" + dir.path(""), publish_mqtt, "gw.conf", topic}).end();
  EXPECT_EQ(library.err, message + " install the package python3-paho-mqtt\n");
  EXPECT_EQ(library.status, 1);
  std::filesystem::remove(paho);
  const ending program = process({"env", "PATH=" + dir.path(""), publish_mqtt, "gw.conf", topic}).end();
  EXPECT_EQ(program.err, "publish-mqtt: dachost: not found on PATH\n");
  EXPECT_EQ(program.status, 1);
}

TEST_F(mqtt, signal_that_ends_dachost_is_reported) {
  in_new_network([this] {
    const auto p = publisher({});
    kill(dachost(), SIGKILL);
    const ending e = p->end();
    EXPECT_EQ(e.status, 128 + SIGKILL);
    EXPECT_EQ(count(e.err, "publish-mqtt: dachost: ended by signal 9 (Killed)\n"), 1U) << e.err;
  });
}

TEST_F(mqtt, dachost_that_refuses_its_configuration_is_the_only_one_that_reports) {
  in_new_network([this] {
    set_dachost("sleep 1; echo 'dachost: x: not found' >&2; exit 78");
    const ending e = publisher({}, with_constant("START_SECONDS", 1, 20))->end();
    EXPECT_EQ(e.err, "dachost: x: not found\n");
    EXPECT_EQ(e.status, 78);
  });
}

TEST_F(mqtt, first_value_is_sent_at_once) {
  in_new_network([this] {
    certify();
    broker b(dir, open_to_all);
    b.start();
    const auto p = publisher({}, with_constant("START_SECONDS", 1, 1000));
    add(1);
    subscriber().await_value(1);
    EXPECT_EQ(stop(*p), "");
  });
}

TEST_F(mqtt, missing_certificate_file_is_named) {
  const ending e = publisher({"--cafile", "/no/such/file"})->end();
  EXPECT_EQ(e.status, 2);
  EXPECT_NE(e.err.find("publish-mqtt: error: /no/such/file: cannot be read"), std::string::npos) << e.err;
}

TEST_F(mqtt, unusable_client_certificate_ends_the_publisher_at_the_start) {
  certify();
  const auto file = [this](const char* name) { return dir.path(name); };
  shell("cd " + dir.path("") + "; openssl ec -aes128 -passout pass:x -in broker.key -out locked.key 2>/dev/null");
  shell("cat " + file("broker.crt") + ' ' + file("broker.key") + " >" + file("both.pem"));
  const std::string text = dir.file("no certificate", "text"), missing = file("missing");
  const std::string crt = file("broker.crt"), key = file("broker.key"), ca_key = file("ca.key");
  shell("cd " + dir.path("") + "; openssl genrsa -out rsa.key 2048 2>/dev/null");
  shell("cd " + dir.path("") +
        "; openssl req -x509 -days 2 -subj /CN=weak -newkey rsa:512 -nodes -keyout weak.key "
        "-out weak.crt 2>/dev/null");
  const std::string locked = file("locked.key"), folder = dir.path(""), rsa = file("rsa.key"), weak = file("weak.crt");
  const std::string fifo = file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const struct row {
    texts options;
    std::string message;
  } rows[] = {
      {{"--cert", missing, "--key", key}, missing + ": cannot be read: No such file or directory"},
      {{"--cert", crt, "--key", missing}, missing + ": cannot be read: No such file or directory"},
      {{"--cert", folder, "--key", key}, folder + ": not a regular file"},
      {{"--cert", crt, "--key", folder}, folder + ": not a regular file"},
      {{"--cafile", fifo}, fifo + ": not a regular file"},
      {{"--cafile", "/proc/self/mem"}, "/proc/self/mem: cannot be read: Input/output error"},
      {{"--cert", text, "--key", key}, text + ": contains no certificate in PEM format"},
      {{"--cert", crt, "--key", text}, text + ": contains no private key in PEM format"},
      {{"--cert", crt, "--key", crt}, crt + ": contains no private key in PEM format"},
      {{"--cert", key, "--key", key}, key + ": contains no certificate in PEM format"},
      {{"--cert", crt}, crt + ": contains no private key in PEM format; --key names the file that does"},
      {{"--cert", crt, "--key", ca_key}, ca_key + ": is not the key of the certificate in " + crt},
      {{"--cert", crt, "--key", rsa}, rsa + ": is not the key of the certificate in " + crt},
      {{"--cert", weak, "--key", file("weak.key")}, weak + ": cannot be used: [SSL: EE_KEY_TOO_SMALL]"},
      {{"--cert", crt, "--key", locked}, locked + ": the private key has a pass phrase; a key without one is required"},
      {{"--key", key}, "--key: the certificate is missing; --cert names it"},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.message);
    const auto p = publisher(r.options);
    const ending e = end_at_the_start(*p);
    EXPECT_EQ(e.status, 2);
    EXPECT_EQ(count(e.err, "publish-mqtt: error: " + r.message), 1U) << e.err;
    EXPECT_EQ(count(e.err, "Traceback"), 0U) << e.err;
  }
  in_new_network([&] {
    for (const texts& good : {texts{"--cert", crt, "--key", key}, texts{"--cert", file("both.pem")}}) {
      const auto p = publisher(good);
      p->await_err("publish-mqtt: 127.0.0.1:8883: Connection refused; retrying\n");
      stop(*p);
    }
  });
}

TEST_F(mqtt, IPv6_broker_is_reported_in_brackets) {
  in_new_network([this] {
    const auto p = publisher({"-h", "::1"});
    p->await_err("publish-mqtt: [::1]:1883: Connection refused; retrying\n");
    stop(*p);
  });
}

TEST_F(mqtt, topics_that_no_broker_accepts_are_refused) {
  for (const std::string bad : {"", "a/#", "a/+/b"}) {
    const ending e = process({publish_mqtt, "gw.conf", bad}).end();
    EXPECT_EQ(e.status, 2);
    EXPECT_NE(e.err.find("TOPIC: expected a name without + and #, got '" + bad + "'"), std::string::npos) << e.err;
  }
}

TEST_F(mqtt, impossible_options_are_refused) {
  const std::string text = dir.file("no certificate", "text");
  const std::vector<texts> cases = {{"-p", "0"},        {"-p", "65536"},
                                    {"-p", "x"},        {"-k", "2"},
                                    {"-k", "-1"},       {"-k", "65536"},
                                    {"--expiry", "-1"}, {"--expiry", "4294967296"},
                                    {"--cafile", text}, {"--cafile", dir.path("")},
                                    {"-h", ""},         {"-P", "without -u"},
                                    {"--expir", "5"}};
  for (const texts& bad : cases) {
    const ending e = process({publish_mqtt, "gw.conf", "topic", bad[0], bad[1]}).end();
    EXPECT_EQ(e.status, 2) << bad[1];
    EXPECT_NE(e.err.find(bad[0] == "--cafile" ? bad[1] + ": " : bad[0]), std::string::npos) << e.err;
    EXPECT_EQ(e.err.find("Traceback"), std::string::npos) << e.err;
  }
}

TEST_F(mqtt, help_lists_the_options) {
  const ending e = process({publish_mqtt, "--help"}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  for (const char* word : {"CONFIG", "TOPIC", "-h HOST", "-p PORT", "-k SECONDS", "--cafile FILE", "--expiry SECONDS"})
    EXPECT_NE(e.out.find(word), std::string::npos) << word << '\n' << e.out;
}

TEST_F(mqtt, least_and_largest_numbers_are_accepted) {
  set_dachost("exit 3");
  for (const texts& numbers :
       {texts{"-p", "1", "-k", "3", "--expiry", "0"}, texts{"-p", "65535", "-k", "65535", "--expiry", "4294967295"}}) {
    const ending e = publisher(numbers, with_constant("START_SECONDS", 1, 20))->end();
    EXPECT_EQ(e.err, "");
    EXPECT_EQ(e.status, 3);
  }
}

TEST_F(mqtt, newest_value_that_the_broker_does_not_get_is_reported_at_the_end) {
  in_new_network([this] {
    const std::string message = std::string(topic) + ": this program ends before the broker has the newest value\n";
    const auto away = publisher({});
    away->await_err("; retrying\n");
    EXPECT_EQ(count(stop(*away), message), 0U) << "there is no value";
    std::filesystem::remove(dir.path("dachost.pid"));
    // The rest exceeds what a pipe holds: when it is written, the value has been read.
    set_dachost(R"(echo '{"event":"value","value":"1"}'; yes '{"event":"message"}' | head -c 200000; echo $$ >)" +
                dir.path("dachost.pid") + "; exec sleep 1000");
    const auto p = publisher({});
    dachost();
    EXPECT_EQ(count(stop(*p), message), 1U);
  });
}

TEST_F(mqtt, outage_costs_no_processor_time) {
  in_new_network([this] {
    const auto p = publisher({});
    p->await_err("; retrying\n");
    const auto ticks = [&] {
      const texts fields = split(read_file("/proc/" + std::to_string(p->pid()) + "/stat"), ' ');
      return std::stol(fields.at(13)) + std::stol(fields.at(14));
    };
    const long before = ticks();
    process({"sleep", "3"}).end();
    EXPECT_LE(ticks() - before, sysconf(_SC_CLK_TCK) / 4);
    stop(*p);
  });
}
