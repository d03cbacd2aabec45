// A fleet: three machines, each a network namespace with its addresses and its host, publish to one MQTT broker,
// and a subscriber sees what each of them has.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "tests/support/built.h"
#include "tests/support/network.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

using nlohmann::json;

namespace {

/// The process that has written its own id into the file.
pid_t id_in(const std::string& file) {
  pid_t id = 0;
  const auto is_there = [&] { return static_cast<bool>(std::ifstream(file) >> id); };
  if (!eventually(is_there)) throw std::runtime_error("timeout: no process writes " + file);
  return id;
}

/// Root of the machine drops its rights; root of a user namespace has none to drop and no other account.
std::string broker_user() {
  unsigned long first = 0, outside = 0, count = 0;
  std::ifstream("/proc/self/uid_map") >> first >> outside >> count;
  return count > 1 ? "nobody" : "root";
}

class broker {
 public:
  explicit broker(const scratch& dir)
      : _process(
            {"/usr/sbin/mosquitto", "-c",
             dir.file("listener 1883 0.0.0.0\nallow_anonymous true\npersistence false\nuser " + broker_user() + '\n',
                      "mosquitto.conf")}) {
    _process.await_err(" running");
  }
  ~broker() {
    _process.signal(SIGTERM);
    _process.end_unread();
  }
  broker(const broker&) = delete;
  broker& operator=(const broker&) = delete;

 private:
  process _process;
};

/// A network namespace with a cable to the broker's, 10.0.N.2 at this end and 10.0.N.1 at that.
class machine {
 public:
  machine(const scratch& dir, int number, const std::string& name)
      : _dir(dir),
        _name(name),
        _number(std::to_string(number)),
        _holder({"unshare", "-n", "sh", "-c", "echo $$ >" + dir.path(name + ".holder") + " && exec sleep 1000"}),
        _id(std::to_string(id_in(dir.path(name + ".holder")))) {
    const std::string cable = "v" + _number;
    EXPECT_TRUE(ip("link add " + cable + " type veth peer name eth0 netns " + _id));
    EXPECT_TRUE(ip("link set " + cable + " up"));
    EXPECT_TRUE(ipv4("addr add 10.0." + _number + ".1/24 dev " + cable));
    run("ip link set lo up && ip link set eth0 up && ip addr add 10.0." + _number + ".2/24 dev eth0");
  }

  void add(const std::string& address, const char* interface = "lo") const {
    run("ip -6 addr add " + address + " nodad dev " + interface);
  }
  void del(const std::string& address, const char* interface = "lo") const {
    run("ip -6 addr del " + address + " dev " + interface);
  }

  /// Publishes under the machine's name, as doc/mqtt.md describes.
  void publish() { publish_by("hostname = " + _name + ".example\n"); }
  void publish_by(const std::string& configuration) {
    const std::string conf = _dir.file(configuration, _name + ".conf");
    _publisher = std::make_unique<process>(
        inside({"env", "PATH=" + _dir.path("bin") + ':' + std::getenv("PATH"), "PID_FILE=" + _dir.path(_name + ".pid"),
                SOURCE_DIR "/examples/publish-mqtt", conf, "ip6dns/" + _name, "-h", "10.0." + _number + ".1"}));
  }
  /// Waits until the publisher has printed this.
  void await_report(const std::string& text) const { _publisher->await_err(text); }
  /// The cable to the broker.
  void plug() const { EXPECT_TRUE(ip("link set v" + _number + " up")); }
  void unplug() const { EXPECT_TRUE(ip("link set v" + _number + " down")); }

  /// Stops the host; the rest is to follow by itself.
  ending stop() {
    kill(id_in(_dir.path(_name + ".pid")), SIGTERM);
    return wait();
  }
  ending wait() { return _publisher->end(); }
  /// Sends the signal to the script alone.
  ending signal(int sig) {
    _publisher->signal(sig);
    return wait();
  }
  /// What runs of all that the script has started, found by its environment variables.
  texts left_running() const {
    texts found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const std::string proc = entry.path();
      if (read_file(proc + "/environ").find("PID_FILE=" + _dir.path(_name + ".pid") + '\0') != std::string::npos)
        found.push_back(read_file(proc + "/comm"));
    }
    return found;
  }

 private:
  const scratch& _dir;
  const std::string _name;
  const std::string _number;
  process _holder;
  const std::string _id;
  std::unique_ptr<process> _publisher;

  static bool ipv4(const std::string& command) { return std::system(("ip " + command).c_str()) == 0; }
  texts inside(texts command) const {
    command.insert(command.begin(), {"nsenter", "-n", "-t", _id});
    return command;
  }
  void run(const std::string& command) const {
    const ending e = process(inside({"sh", "-c", command})).end();
    if (e.status != 0) throw std::runtime_error(command + ": " + e.err);
  }
};

/// Sees all that is published below ip6dns/.
class subscriber {
 public:
  subscriber() : _process({"mosquitto_sub", "-h", "127.0.0.1", "-v", "-t", "ip6dns/#"}) {}

  /// Returns when it gets a retained message, and so later ones, too.
  void await_subscribed() {
    EXPECT_EQ(
        process({"mosquitto_pub", "-h", "127.0.0.1", "-t", "ip6dns/retained", "-r", "-m", "retained"}).end().status, 0);
    _process.await_out("ip6dns/retained retained\n");
  }
  void await(const std::string& machine, const std::string& value) {
    _process.await_out("\"tag\":\"" + machine + R"(.example","type":6,"value":")" + value + "\",");
  }
  void await_online(const std::string& machine) { _process.await_out("ip6dns/" + machine + "/status online\n"); }
  /// Topic by topic the values, one for each change.
  std::map<std::string, texts> changes() {
    _process.signal(SIGTERM);
    std::map<std::string, texts> all;
    std::istringstream in(_process.end().out);
    for (std::string topic, object; in >> topic && std::getline(in, object);) {
      if (topic.ends_with("/status")) continue;
      const json event = json::parse(object);
      EXPECT_EQ(event["event"], "value");
      EXPECT_EQ("ip6dns/" + event["instance"].get<std::string>(), topic);
      const auto value = event["value"].get<std::string>();
      texts& values = all[topic];
      if (values.empty() || values.back() != value) values.push_back(value);
    }
    return all;
  }

 private:
  process _process;
};

class fleet : public testing::Test {
 protected:
  scratch dir;

  /// A dachost on PATH whose worker does not wait ten seconds between polls.
  fleet() {
    mkdir(dir.path("bin").c_str(), 0700);
    const std::string script = dir.file(
        "#!/bin/sh\necho $$ >$PID_FILE\ncommand=$1\nshift\n"
        "ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 LD_PRELOAD=" +
            built("swift_clock") + " exec " + built("dachost") + " $command -p " + built("plugin") + " \"$@\"\n",
        "bin/dachost");
    if (chmod(script.c_str(), 0700) != 0) throw std::runtime_error(script);
  }
};

}  // namespace

TEST_F(fleet, of_three_machines_is_seen_by_a_subscriber_of_one_broker) {
  in_new_network([this] {
    const broker b(dir);
    machine gateway(dir, 1, "gateway"), pump(dir, 2, "pump"), camera(dir, 3, "camera");
    gateway.add("2001:db8:1::1/64");
    camera.add("2001:db8:3::1/64");
    camera.add("2001:db8:3::2/64", "eth0");
    subscriber s;
    for (machine* m : {&gateway, &pump, &camera}) m->publish();
    s.await("gateway", "2001:db8:1::1");
    s.await("pump", "null");
    s.await("camera", "2001:db8:3::1,2001:db8:3::2");

    pump.add("fd00::2/64");
    s.await("pump", "fd00::2");
    gateway.del("2001:db8:1::1/64");
    s.await("gateway", "null");
    camera.del("2001:db8:3::1/64");
    s.await("camera", "2001:db8:3::2");
    gateway.add("2001:db8:1::7/64");
    s.await("gateway", "2001:db8:1::7");

    for (machine* m : {&gateway, &pump, &camera}) {
      const ending e = m->stop();
      EXPECT_EQ(e.status, 0) << e.err;
    }
    const std::map<std::string, texts> expected = {{"ip6dns/gateway", {"2001:db8:1::1", "null", "2001:db8:1::7"}},
                                                   {"ip6dns/pump", {"null", "fd00::2"}},
                                                   {"ip6dns/camera", {"2001:db8:3::1,2001:db8:3::2", "2001:db8:3::2"}}};
    EXPECT_EQ(s.changes(), expected);
  });
}

TEST_F(fleet, shows_those_who_come_later_what_every_machine_has) {
  in_new_network([this] {
    const broker b(dir);
    machine gateway(dir, 1, "gateway"), pump(dir, 2, "pump");
    gateway.add("2001:db8:1::1/64");
    subscriber early;
    gateway.publish();
    pump.publish();
    early.await("gateway", "2001:db8:1::1");
    early.await("pump", "null");
    EXPECT_EQ(gateway.stop().status, 0);
    EXPECT_EQ(pump.stop().status, 0);

    subscriber late;
    late.await("gateway", "2001:db8:1::1");
    late.await("pump", "null");
  });
}

TEST_F(fleet, sends_later_what_was_published_while_the_broker_was_away) {
  in_new_network([this] {
    auto b = std::make_unique<broker>(dir);
    machine gateway(dir, 1, "gateway");
    subscriber s;
    gateway.publish();
    s.await("gateway", "null");
    b.reset();
    gateway.await_report("; retrying\n");
    gateway.add("2001:db8:1::1/64");

    gateway.unplug();
    b = std::make_unique<broker>(dir);
    subscriber late;
    late.await_subscribed();
    gateway.plug();
    late.await("gateway", "2001:db8:1::1");
    EXPECT_EQ(gateway.stop().status, 0);
  });
}

TEST_F(fleet, ends_as_the_host_ends_that_refuses_its_file) {
  in_new_network([this] {
    const broker b(dir);
    machine gateway(dir, 1, "gateway");
    gateway.publish_by("hostname =\n");
    const ending e = gateway.wait();
    EXPECT_EQ(e.status, 78);
    EXPECT_NE(e.err.find("dachost: not config hostname in "), std::string::npos) << e.err;
  });
}

TEST_F(fleet, a_signal_to_the_script_leaves_no_process_running) {
  in_new_network([this] {
    const broker b(dir);
    machine gateway(dir, 1, "gateway");
    for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
      SCOPED_TRACE(sig);
      subscriber s;
      gateway.publish();
      s.await_online("gateway");
      EXPECT_TRUE(eventually([&] { return gateway.left_running().size() >= 2; }));
      EXPECT_EQ(gateway.signal(sig).status, 0);
      EXPECT_TRUE(eventually([&] { return gateway.left_running().empty(); })) << gateway.left_running().front();
    }
  });
}

TEST_F(fleet, publisher_names_the_package_that_is_missing) {
  const ending e = process({"/usr/bin/python3", "-S", SOURCE_DIR "/examples/publish-mqtt", "x.conf", "topic"}).end();
  EXPECT_EQ(e.status, 1);
  EXPECT_NE(e.err.find("install the package python3-paho-mqtt"), std::string::npos) << e.err;
}
