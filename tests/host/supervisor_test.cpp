// How instances come and go: the calls that a plug-in gets, and what an observer gets.
#include "host/instances/supervisor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include "host/instances/diagnose.h"
#include "tests/host/scripted_loop.h"
#include "tests/support/scratch.h"

using namespace std::chrono_literals;
using texts = std::vector<std::string>;

namespace {

class supervisors : public testing::Test, public fleet_observer {
 protected:
  struct driver {
    std::string file;
    cblog log;
    void* logparam;
    cbdata data;
    void* dataparam;
    bool was_started = false;
  };

  scripted_loop loop;
  plugin p;
  texts journal;  // calls into the plug-in, and what the observer got
  std::map<int, driver> drivers;
  std::map<std::string, texts> reports;  // of a file's instance when it is created: "failure TEXT", "message TEXT"
  std::set<std::string> refused;         // files
  std::string not_started;               // a file
  size_t room = 1000;
  int last_handle = -1;
  texts phases;
  std::unique_ptr<supervisor> s;

  supervisors() {
    p.create = [this](const char* name, const char* file, cblog log, void* logparam, cbaux, void*, cbdata data,
                      void* dataparam, cbaux, void*) {
      const int handle = create(name, {file, log, logparam, data, dataparam});
      return handle;
    };
    p.destroy = [this](int handle) {
      note("destroy " + std::to_string(handle));
      EXPECT_TRUE(loop.is_in_background || !drivers.at(handle).was_started);
      drivers.erase(handle);
    };
    p.start = [this](int handle) {
      note("start " + std::to_string(handle));
      EXPECT_TRUE(loop.is_in_background);
      drivers.at(handle).was_started = true;
      if (drivers.at(handle).file == not_started) throw std::system_error(EAGAIN, std::generic_category());
      return 0;
    };
    p.stop = [this](int handle) {
      note("stop " + std::to_string(handle));
      EXPECT_TRUE(loop.is_in_background || !drivers.at(handle).was_started);
      return 0;
    };
    p.isrun = [](int) { return 1; };
    p.getalltagsex = [this](int handle, cbtagex callback, void* param) {
      callback(drivers.at(handle).file.c_str(), 3, 1, "one", "two", param);
      return 0;
    };
    p.getinfo = [](int, char*, size_t*) { return 0; };
  }

  ~supervisors() override { loop.is_in_background = true; }  // the end of the process may wait

  int create(const std::string& name, const driver& d) {
    note("create " + name + " of " + d.file);
    EXPECT_TRUE(loop.is_in_background);
    for (const std::string& r : reports[d.file])
      d.log("", r.starts_with("failure ") ? DAC_LEVEL_FAILURE : DAC_LEVEL_OTHER, r.substr(8).c_str(), 1, d.logparam);
    if (refused.contains(d.file) || drivers.size() >= room) return -1;
    drivers[++last_handle] = d;
    return last_handle;
  }
  void publish(int handle, const std::string& text) {
    dac_tagvalue r[2] = {};
    for (dac_tagvalue& v : r) {
      v.type = 7;
      std::string("tag").copy(v.name, sizeof v.name);
    }
    text.copy(r[0].value, sizeof r[0].value);
    std::string(sizeof r[1].value, 'x').copy(r[1].value, sizeof r[1].value);
    drivers.at(handle).data(r, 2, drivers.at(handle).dataparam);
  }

  void make(const texts& files = {"a.conf", "b.conf"}) { s = std::make_unique<supervisor>(loop, p, files, *this); }
  void start() {
    make();
    s->start_all();
    journal.clear();
  }
  void reload() {
    EXPECT_TRUE(loop.signal(SIGHUP));
    loop.pass(0s);
  }
  texts noted() { return std::exchange(journal, {}); }
  void note(const std::string& what) { journal.push_back(what); }

  void on_tag(size_t i, const tag& t) override {
    note("tag " + std::to_string(i) + ' ' + t.name + ' ' + std::to_string(t.type) + ' ' + std::to_string(t.flag) + ' ' +
         t.text1 + ' ' + t.text2);
  }
  void on(const event& e, const value& v) override {
    note("value " + std::to_string(e.index) + ' ' + v.tag + ' ' + std::to_string(v.type) + ' ' +
         (v.text.size() > 20 ? std::to_string(v.text.size()) : v.text));
    EXPECT_EQ(e.time, wall_clock::time_point(5s));
  }
  void on(const event& e, const message& m) override {
    note("message " + std::to_string(e.index) + ' ' + std::to_string(m.level) + ' ' + m.text);
  }
  void on_refused(size_t i, const std::string& what) override { note("refused " + std::to_string(i) + ' ' + what); }
  void on_reload() override { phases.emplace_back("reload"); }
  void on_loaded() override { phases.emplace_back("loaded"); }
};

const texts started = {"create a of a.conf",
                       "create b of b.conf",
                       "tag 0 a.conf 3 1 one two",
                       "tag 1 b.conf 3 1 one two",
                       "start 0",
                       "start 1"};
const texts reloaded = {"create a of a.conf",
                        "create b of b.conf",
                        "stop 0",
                        "stop 1",
                        "tag 0 a.conf 3 1 one two",
                        "tag 1 b.conf 3 1 one two",
                        "stop 0",
                        "destroy 0",
                        "stop 1",
                        "destroy 1",
                        "start 2",
                        "start 3"};
constexpr char missing[] = ": No such file or directory";

}  // namespace

TEST_F(supervisors, start_creates_all_before_it_starts_one) {
  make();
  s->start_all();
  EXPECT_EQ(journal, started);
  EXPECT_FALSE(s->is_to_stop());
  EXPECT_FALSE(s->has_refused());
  EXPECT_EQ(s->failure(), "");
  EXPECT_EQ(s->instances().size(), 2U);
  EXPECT_EQ(s->instances().get(1)->handle(), 1);
  EXPECT_EQ(loop.works, 2) << "creation and start";
}

TEST_F(supervisors, reports_reach_the_observer_in_order_with_their_time) {
  reports["a.conf"] = {"message early", "failure not fatal"};
  make();
  s->start_all();
  EXPECT_EQ(noted()[2], "message 0 " + std::to_string(DAC_LEVEL_OTHER) + " early");
  loop.wall = wall_clock::time_point(5s);
  publish(1, "text");
  drivers.at(0).log("", DAC_LEVEL_FAILURE, "late", 1, drivers.at(0).logparam);
  EXPECT_EQ(noted(), texts{}) << "callbacks come on threads of the plug-in";
  loop.pass(0s);
  EXPECT_EQ(noted(), (texts{"value 1 tag 7 text", "value 1 tag 7 " + std::to_string(DAC_VALUE_SIZE),
                            "message 0 " + std::to_string(DAC_LEVEL_FAILURE) + " late"}));
}

TEST_F(supervisors, a_file_refused_at_the_start_ends_the_run) {
  reports["a.conf"] = {"failure first", "failure bad value", "message unrelated"};
  refused = {"a.conf"};
  make();
  s->start_all();
  EXPECT_TRUE(s->is_to_stop());
  EXPECT_TRUE(s->has_refused());
  const std::string failure = "message 0 " + std::to_string(DAC_LEVEL_FAILURE) + ' ';
  EXPECT_EQ(journal, (texts{"create a of a.conf", "create b of b.conf",
                            "refused 0 a.conf: bad value" + std::string(missing) + "; nothing is started",
                            failure + "first", failure + "bad value",
                            "message 0 " + std::to_string(DAC_LEVEL_OTHER) + " unrelated", "stop 0", "destroy 0"}));
  EXPECT_TRUE(s->stop());
}

TEST_F(supervisors, every_file_refused_at_the_start_is_reported) {
  refused = {"b.conf", "c.conf"};
  make({"a.conf", "b.conf", "c.conf"});
  s->start_all();
  const std::string why =
      ".conf: refused without a reason; the plug-in may have no room for another instance" + std::string(missing);
  EXPECT_EQ(journal, (texts{"create a of a.conf", "create b of b.conf", "create c of c.conf",
                            "refused 1 b" + why + "; nothing is started", "refused 2 c" + why + "; nothing is started",
                            "stop 0", "destroy 0"}));
}

TEST_F(supervisors, SIGHUP_replaces_every_instance) {
  start();
  reload();
  EXPECT_EQ(noted(), reloaded);
  EXPECT_FALSE(s->is_to_stop());
  EXPECT_EQ(s->instances().get(0)->handle(), 2);
}

TEST_F(supervisors, a_file_refused_on_a_reload_does_not_stop_its_old_instance) {
  start();
  refused = {"a.conf"};
  reports["a.conf"] = {"failure bad"};
  reload();
  EXPECT_EQ(noted(), (texts{"create a of a.conf", "create b of b.conf",
                            "refused 0 a.conf: bad" + std::string(missing) + "; the old instance continues",
                            "message 0 " + std::to_string(DAC_LEVEL_FAILURE) + " bad", "stop 1",
                            "tag 1 b.conf 3 1 one two", "stop 1", "destroy 1", "start 2"}));
  EXPECT_FALSE(s->is_to_stop());
  EXPECT_FALSE(s->has_refused());
  refused = {"a.conf", "b.conf"};
  reload();
  EXPECT_EQ(noted().size(), 5U);
  EXPECT_FALSE(s->is_to_stop());
  EXPECT_EQ(s->instances().get(0)->handle(), 0);
  EXPECT_EQ(s->instances().get(1)->handle(), 2);
  refused.clear();
  reports.clear();
  reload();
  EXPECT_EQ(noted().size(), reloaded.size()) << "later reloads work";
}

TEST_F(supervisors, a_reload_needs_room_for_one_more_instance) {
  start();
  room = 3;
  reload();
  EXPECT_EQ(noted(), (texts{"create a of a.conf", "create b of b.conf", "stop 0", "tag 0 a.conf 3 1 one two", "stop 0",
                            "destroy 0", "start 2", "create b of b.conf", "stop 1", "tag 1 b.conf 3 1 one two",
                            "stop 1", "destroy 1", "start 3"}));
  room = 2;
  reload();
  const std::string why =
      ".conf: refused without a reason; the plug-in may have no room for another instance" + std::string(missing);
  EXPECT_EQ(noted(),
            (texts{"create a of a.conf", "create b of b.conf", "refused 0 a" + why + "; the old instance continues",
                   "refused 1 b" + why + "; the old instance continues"}));
}

TEST_F(supervisors, a_refusal_with_a_reason_does_not_mean_a_full_plug_in) {
  start();
  refused = {"b.conf"};
  reports["b.conf"] = {"failure bad"};
  reload();
  EXPECT_EQ(noted()[2], "refused 1 b.conf: bad" + std::string(missing) + "; the old instance continues");
}

TEST_F(supervisors, a_reload_begins_and_ends_once_even_if_all_files_are_refused) {
  make();
  s->start_all();
  EXPECT_EQ(phases, texts{"loaded"});
  reload();
  EXPECT_EQ(phases, (texts{"loaded", "reload", "loaded"}));
  refused = {"a.conf", "b.conf"};
  reload();
  EXPECT_EQ(phases, (texts{"loaded", "reload", "loaded", "reload", "loaded"}));
}

TEST_F(supervisors, nothing_is_loaded_when_a_file_is_refused_at_the_start) {
  refused = {"a.conf"};
  make();
  s->start_all();
  EXPECT_TRUE(s->stop());
  EXPECT_EQ(phases, texts{});
}

TEST_F(supervisors, SIGHUP_during_a_reload_causes_one_more) {
  start();
  loop.holds_work = true;
  loop.signal(SIGHUP);
  EXPECT_EQ(loop.held_work(), 1U);
  loop.signal(SIGHUP);
  loop.signal(SIGHUP);
  EXPECT_EQ(loop.held_work(), 1U);
  loop.holds_work = false;
  loop.release_work();
  loop.pass(0s);
  EXPECT_EQ(journal.size(), 2 * reloaded.size());
  EXPECT_EQ(s->instances().get(1)->handle(), 5);
}

TEST_F(supervisors, SIGHUP_during_the_start_causes_a_reload) {
  make();
  loop.holds_work = true;
  const auto later = loop.call_in(1s, [this] {
    loop.signal(SIGHUP);
    loop.holds_work = false;
    loop.release_work();
  });
  s->start_all();
  EXPECT_EQ(s->instances().get(0)->handle(), 2);
  EXPECT_EQ(s->instances().get(1)->handle(), 3);
}

TEST_F(supervisors, SIGHUP_while_room_is_made_reloads_all_files) {
  start();
  room = 3;
  loop.holds_work = true;
  loop.signal(SIGHUP);
  loop.signal(SIGHUP);
  loop.holds_work = false;
  loop.release_work();
  loop.pass(0s);
  EXPECT_EQ(s->instances().get(0)->handle(), 3);
  EXPECT_EQ(s->instances().get(1)->handle(), 4);
}

TEST_F(supervisors, stop_signals_are_noticed_while_the_plug_in_works) {
  for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) {
    make();
    loop.holds_work = true;
    const auto later = loop.call_in(1s, [this, sig] { loop.signal(sig); });
    s->start_all();
    EXPECT_TRUE(s->is_to_stop());
    EXPECT_FALSE(s->has_refused());
    EXPECT_EQ(loop.held_work(), 1U);
    loop.holds_work = false;
    loop.release_work();
    noted();
    EXPECT_TRUE(s->stop());
    const std::string a = std::to_string(last_handle - 1), b = std::to_string(last_handle);
    EXPECT_EQ(noted(), (texts{"create a of a.conf", "create b of b.conf", "stop " + a, "destroy " + a, "stop " + b,
                              "destroy " + b}))
        << "nothing is started";
    s = nullptr;
    EXPECT_FALSE(loop.signal(sig));
  }
}

TEST_F(supervisors, a_stop_signal_prevents_a_reload) {
  start();
  loop.signal(SIGTERM);
  reload();
  EXPECT_EQ(noted(), texts{});
}

TEST_F(supervisors, an_instance_that_cannot_be_started_ends_the_run) {
  not_started = "a.conf";
  make();
  s->start_all();
  EXPECT_TRUE(s->is_to_stop());
  EXPECT_FALSE(s->has_refused());
  EXPECT_EQ(s->failure(), "a.conf: cannot be started: Resource temporarily unavailable");
  EXPECT_EQ(journal.back(), "start 0");
}

TEST_F(supervisors, stop_stops_all_and_then_destroys_them) {
  start();
  EXPECT_TRUE(s->stop());
  EXPECT_EQ(noted(), (texts{"stop 0", "stop 1", "stop 0", "destroy 0", "stop 1", "destroy 1"}));
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_FALSE(s->instances().get(0));
  reload();
  EXPECT_EQ(noted(), texts{});
}

TEST_F(supervisors, stop_waits_for_a_reload_and_starts_none_of_its_instances) {
  start();
  loop.holds_work = true;
  loop.signal(SIGHUP);
  loop.signal(SIGHUP);
  const auto later = loop.call_in(10s, [this] {
    loop.holds_work = false;
    loop.release_work();
  });
  EXPECT_TRUE(s->stop());
  EXPECT_EQ(noted(), (texts{"create a of a.conf", "create b of b.conf", "stop 2", "destroy 2", "stop 3", "destroy 3",
                            "stop 0", "stop 1", "stop 0", "destroy 0", "stop 1", "destroy 1"}));
}

TEST_F(supervisors, stop_gives_up_after_thirty_seconds) {
  start();
  const auto begun = loop.now();
  loop.holds_work = true;
  EXPECT_FALSE(s->stop());
  EXPECT_EQ(loop.now() - begun, 30s);
  EXPECT_EQ(loop.held_work(), 1U);
}

TEST_F(supervisors, stop_gives_up_on_a_reload_too) {
  start();
  loop.holds_work = true;
  loop.signal(SIGHUP);
  const auto begun = loop.now();
  EXPECT_FALSE(s->stop());
  EXPECT_EQ(loop.now() - begun, 30s);
  EXPECT_EQ(loop.held_work(), 1U) << "no call follows into a plug-in that does not return";
}

TEST_F(supervisors, a_reload_that_returns_after_stop_gave_up_starts_nothing) {
  start();
  loop.holds_work = true;
  loop.signal(SIGHUP);
  loop.signal(SIGHUP);
  EXPECT_FALSE(s->stop());
  loop.holds_work = false;
  loop.release_work();
  loop.pass(0s);
  EXPECT_EQ(noted(), (texts{"create a of a.conf", "create b of b.conf", "stop 2", "destroy 2", "stop 3", "destroy 3"}));
}

TEST(instance_name, is_the_stem_or_the_path_or_has_a_number) {
  EXPECT_EQ(instance_names({"etc/a.conf", "b", "c/"}), (texts{"a", "b", "c/"}));
  EXPECT_EQ(instance_names({"x/a.conf", "y/a.conf", "b.conf"}), (texts{"x/a.conf", "y/a.conf", "b"}));
  EXPECT_EQ(instance_names({"a.conf", "a.conf", "a.conf"}), (texts{"a.conf", "a.conf#2", "a.conf#3"}));
  EXPECT_EQ(instance_names({"x/a", "y/a", "x/a#2", "x/a"}), (texts{"x/a", "y/a", "a#2", "x/a#2"}));
}

TEST(diagnosis, names_the_file_once_and_adds_a_remedy) {
  const scratch dir;
  const std::string file = dir.file("hostname = a\n"), empty = dir.file("", "empty");
  errno = EIO;
  EXPECT_EQ(diagnose(file, "refused"), file + ": refused");
  EXPECT_EQ(diagnose(empty, "refused"), empty + ": refused");
  EXPECT_EQ(diagnose(file, "in " + file + " is no sense"), "in " + file + " is no sense");
  EXPECT_EQ(diagnose(empty, "not config hostname in " + empty),
            "not config hostname in " + empty + ": a line hostname = NAME is needed, see ip6dns.conf(5)");
  EXPECT_EQ(diagnose(file, "hostname contains illegal characters"),
            file +
                ": hostname contains illegal characters: none of ' \" ( ) : may be in it, see ip6dns.conf(5); "
                "check line 1: \"hostname = a\"");
  EXPECT_EQ(diagnose(dir.path("none"), "refused"), dir.path("none") + ": refused: No such file or directory");
  EXPECT_EQ(diagnose(dir.path(""), dir.path("") + ": not a regular file"), dir.path("") + ": not a regular file");
  dir.file("hostnme = a\n");
  EXPECT_EQ(diagnose(file, "not config hostname in " + file),
            "not config hostname in " + file +
                ": a line hostname = NAME is needed, see ip6dns.conf(5); "
                "check line 1: \"hostnme = a\"");
  dir.file("stray\nhostname = a\n");
  EXPECT_EQ(diagnose(file, "not config hostname in " + file),
            "not config hostname in " + file + ": line 1 hides hostname: \"stray\"; begin comments with #");
  EXPECT_EQ(diagnose(file, "refused"), file + ": refused");
}

TEST(diagnosis, closes_its_descriptor_and_accepts_descriptor_0) {
  const scratch dir;
  const std::string file = dir.file("hostname = a\n");
  const int before = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  errno = EIO;
  EXPECT_EQ(diagnose(file, "refused"), file + ": refused");
  EXPECT_EQ(diagnose(file, "refused"), file + ": refused");
  EXPECT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  dup2(before, STDIN_FILENO);
  close(before);
}
