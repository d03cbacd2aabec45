// The reference host from outside: what it prints, how it ends, what it calls in a plug-in.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "driver/dac.h"
#include "tests/support/built.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

std::string joined(const texts& parts, const std::string& separator) {
  std::string all;
  for (const std::string& part : parts) all.append(all.empty() ? "" : separator).append(part);
  return all;
}

std::string tabbed(const texts& fields) { return joined(fields, "\t"); }

/// The lines of a run whose third field is `what`, without the time, sorted.
texts lines_of(const std::string& out, const std::string& what) {
  texts found;
  for (const std::string& line : lines(out)) {
    const size_t instance = line.find('\t') + 1;
    if (split(line, '\t').at(2) == what) found.push_back(line.substr(instance));
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool is_published(const in6_addr& a) {
  const bool compatible = IN6_IS_ADDR_V4COMPAT(&a);
  return !IN6_IS_ADDR_LOOPBACK(&a) && !IN6_IS_ADDR_MULTICAST(&a) && !IN6_IS_ADDR_LINKLOCAL(&a) &&
         !IN6_IS_ADDR_SITELOCAL(&a) && !IN6_IS_ADDR_V4MAPPED(&a) && !compatible;
}

/// What this machine is to publish.
std::string own_addresses() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) throw std::runtime_error("getifaddrs");
  texts all;
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET6) continue;
    const in6_addr& a = reinterpret_cast<const sockaddr_in6*>(i->ifa_addr)->sin6_addr;
    char text[INET6_ADDRSTRLEN] = {};
    if (is_published(a)) all.emplace_back(inet_ntop(AF_INET6, &a, text, sizeof text));
  }
  freeifaddrs(list);
  return all.empty() ? "null" : joined(all, ",");
}

/// Lines of a run, as lines_of() has them.
std::string tag_line(const std::string& instance, const std::string& tag) {
  return tabbed({instance, "tag", tag, "6", "1", "", "ipv6 address"});
}
std::string value_line(const std::string& instance, const std::string& tag) {
  return tabbed({instance, "value", tag, own_addresses()});
}
texts started_and_stopped(const std::string& instance) {
  return {tabbed({instance, "message", "start wrk_process success."}),
          tabbed({instance, "message", "stop wrk_process success."})};
}

texts command_line(const std::string& executable, const texts& args) {
  texts argv = split(built("emulator"), ' ');
  argv.push_back(executable);
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

ending run_dachost(const texts& args, const process_settings& s = {}) {
  return process(command_line(built("dachost"), args), s).end();
}

class dachost : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return _dir.path(name); }

  /// Writes a file into the test's directory and returns its path.
  std::string file(const std::string& name, const std::string& text) const {
    fs::create_directories(fs::path(path(name)).parent_path());
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }

  /// dachost with the plug-in that ships.
  static process start(const texts& args, const process_settings& s = {}) { return start(built("plugin"), args, s); }
  static ending run_to_end(const texts& args, const process_settings& s = {}) { return start(args, s).end(); }

  /// dachost with the plug-in that records the calls of the host.
  process start_fake(const texts& args, const texts& environment = {}) const {
    process_settings s;
    s.environment = environment;
    s.environment.push_back("FAKE_JOURNAL=" + path("journal"));
    return start(built("fake_plugin"), args, s);
  }
  ending run_fake_to_end(const texts& args, const texts& environment = {}) const {
    return start_fake(args, environment).end();
  }
  /// Runs gw.conf, writes `text` into it when it has published, hangs up, and ends the run when `await` has returned.
  ending rewrite(const std::string& text, const std::function<void(process&)>& await) const {
    process p = start({"run", file("gw.conf", "hostname=before")});
    p.await_out("\tvalue\tbefore\t");
    file("gw.conf", text);
    p.signal(SIGHUP);
    await(p);
    return terminate(p);
  }
  /// Runs a.conf and b.conf with the fake, does `act` when both run, and ends the run.
  ending run_two(const texts& environment, const std::function<void(process&)>& act) const {
    process p = start_fake({"run", file("a.conf", ""), file("b.conf", "")}, environment);
    EXPECT_TRUE(await_journal("start b 1"));
    act(p);
    return terminate(p);
  }
  static ending terminate(process& p) {
    p.signal(SIGTERM);
    ending e = p.end();
    EXPECT_EQ(e.status, 0);
    return e;
  }

  texts journal() const { return lines(read_file(path("journal"))); }
  bool await_journal(const std::string& line) const {
    return eventually([&] {
      const texts all = journal();
      return std::find(all.begin(), all.end(), line) != all.end();
    });
  }
  texts calls_of(const std::string& entry) const {
    texts calls = journal();
    std::erase_if(calls, [&](const std::string& call) { return !call.starts_with(entry + ' '); });
    return calls;
  }
  /// Each of these instances, and no other, was destroyed once, after its stop.
  void expect_gone(const texts& instances) const {
    texts destroyed;
    for (const std::string& i : instances) destroyed.push_back("destroy " + i);
    texts calls = calls_of("destroy");
    std::sort(calls.begin(), calls.end());
    EXPECT_EQ(calls, destroyed);
    const texts all = journal();
    for (const std::string& i : instances)
      EXPECT_LT(std::find(all.begin(), all.end(), "stop " + i), std::find(all.begin(), all.end(), "destroy " + i)) << i;
  }
  /// The log of the dynamic loader in the files "loader*", which are removed.
  std::string take_loader_log() const {
    std::string log;
    for (const fs::path& f : files_beginning("loader")) {
      log += read_file(f);
      fs::remove(f);
    }
    return log;
  }

  /// A copy of the plug-in in which one entry point has another name.
  std::string plugin_without(const std::string& entry) const {
    std::string bytes = read_file(built("ip6dns"));
    const std::string name = '\0' + entry + '\0';
    // Another name with the same hash, which is sum * 33 + character. The loader still resolves the library's
    // references to the function: an address sanitizer adds some.
    std::string hidden = name;
    hidden[entry.size() - 1] += 1;
    hidden[entry.size()] -= 33;
    for (size_t at = bytes.find(name); at != std::string::npos; at = bytes.find(name, at + 1))
      bytes.replace(at, name.size(), hidden);
    return file("without_" + entry + ".so", bytes);
  }

 private:
  scratch _dir;

  std::vector<fs::path> files_beginning(const std::string& prefix) const {
    std::vector<fs::path> files;
    for (const fs::path& f : fs::directory_iterator(path("")))
      if (f.filename().string().starts_with(prefix)) files.push_back(f);
    return files;
  }
  static process start(const std::string& plugin, texts args, const process_settings& s) {
    args.insert(args.begin() + 1, {"-p", plugin});
    return process(command_line(built("dachost"), args), s);
  }
};

/// While it exists, started programs get no threads: they request stacks that are larger than the address space.
class no_threads {
 public:
  no_threads() {
    getrlimit(RLIMIT_STACK, &_before);
    const rlimit huge = {rlim_t{1} << 47, _before.rlim_max};
    if (setrlimit(RLIMIT_STACK, &huge) != 0) throw std::system_error(errno, std::generic_category(), "setrlimit");
  }
  ~no_threads() { setrlimit(RLIMIT_STACK, &_before); }
  no_threads(const no_threads&) = delete;
  no_threads& operator=(const no_threads&) = delete;

  /// What runs the program may need threads itself.
  static bool possible() { return built("needs_threads") == "0"; }

 private:
  rlimit _before{};
};

// What the host adds to the plug-in's reason.
const std::string name_it = ": a line hostname = NAME is needed, see ip6dns.conf(5)";
const std::string spell_it = ": none of ' \" ( ) : may be in it, see ip6dns.conf(5)";

void expect_usage_error(const ending& e) {
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(e.out, "");
  EXPECT_EQ(lines(e.err).size(), 1U) << e.err;
  EXPECT_TRUE(e.err.starts_with("dachost: ")) << e.err;
}

}  // namespace

// ---------------------------------------------------------------- the command line

TEST_F(dachost, wrong_usage_gets_one_line_and_status_2) {
  const std::string sub_commands = "run, top, check, tags or info";
  const std::string such_as = "--for: expected a duration such as 90, 90s, 5m, 2h or 1d, got ";
  const struct row {
    const char* label;
    texts args;
    std::string named;
  } rows[] = {
      {"nothing at all", {}, "expected a sub-command: " + sub_commands},
      {"an unknown sub-command", {"runn", "x.conf"}, "expected a sub-command: " + sub_commands + ", got 'runn'"},
      {"an option before the sub-command",
       {"-p", "x", "run", "x.conf"},
       "-p: expected a sub-command first: " + sub_commands},
      {"an unknown option", {"run", "--loud", "x.conf"}, "--loud: not an option of run"},
      {"two unknown options", {"run", "x.conf", "-x", "--loud"}, "-x: not an option of run"},
      {"an unknown option with a value", {"run", "--loud=3", "x.conf"}, "--loud=3: not an option of run"},
      {"an unknown option without a sub-command", {"--loud"}, "--loud: expected a sub-command first: " + sub_commands},
      {"run without a file", {"run"}, "CONFIG: expected at least one configuration file"},
      {"check without a file", {"check"}, "CONFIG: expected at least one configuration file"},
      {"tags without a file", {"tags"}, "CONFIG: expected at least one configuration file"},
      {"info without a file", {"info"}, "CONFIG: expected at least one configuration file"},
      {"an empty file name", {"check", ""}, "CONFIG: expected a file name, got ''"},
      {"an empty plug-in name", {"run", "-p", "", "x.conf"}, "--plugin: expected a file name, got ''"},
      {"a plug-in without a name", {"check", "x.conf", "-p"}, "--plugin: expected a value after it: FILE (dachost "},
      {"no seconds", {"run", "x.conf", "--for"}, "--for: expected a value after it: DURATION (dachost "},
      {"zero seconds", {"run", "--for", "0", "x.conf"}, "--for: expected more than 0, for example 90s, got '0'"},
      {"zero seconds, written long", {"run", "--for", "0.000", "x.conf"}, "'0.000'"},
      {"less than zero seconds", {"run", "--for", "-3", "x.conf"}, such_as + "'-3'"},
      {"a sign", {"run", "--for", "+3", "x.conf"}, such_as + "'+3'"},
      {"less than nothing", {"run", "--for", "-0", "x.conf"}, such_as + "'-0'"},
      {"seconds that are a word", {"run", "--for", "soon", "x.conf"}, such_as + "'soon'"},
      {"an unknown unit", {"run", "--for", "3w", "x.conf"}, such_as + "'3w'"},
      {"two units", {"run", "--for", "3sm", "x.conf"}, such_as + "'3sm'"},
      {"a unit alone", {"run", "--for", "s", "x.conf"}, such_as + "'s'"},
      {"a unit after a space", {"run", "--for", "3 s", "x.conf"}, such_as + "'3 s'"},
      {"a decimal comma", {"run", "--for", "1,5", "x.conf"}, such_as + "'1,5'"},
      {"a period alone", {"run", "--for", ".", "x.conf"}, such_as + "'.'"},
      {"more days than a clock has",
       {"run", "--for", "20000d", "x.conf"},
       "--for: expected at most 11574d, got '20000d'"},
      {"empty seconds", {"run", "--for", "", "x.conf"}, such_as + "''"},
      {"an exponent", {"run", "--for", "1e3", "x.conf"}, such_as + "'1e3'"},
      {"an exponent with a unit", {"run", "--for", "1E+3s", "x.conf"}, such_as + "'1E+3s'"},
      {"a hexadecimal number", {"run", "--for", "0x10", "x.conf"}, such_as + "'0x10'"},
      {"endless seconds", {"run", "--for", "inf", "x.conf"}, such_as + "'inf'"},
      {"seconds that are no number", {"run", "--for", "nan", "x.conf"}, such_as + "'nan'"},
      {"more seconds than a clock has",
       {"run", "--for", std::string(300, '9'), "x.conf"},
       "expected at most 11574d, got"},
      {"more seconds than a number has",
       {"run", "--for", std::string(400, '9'), "x.conf"},
       "expected at most 11574d, got"},
      {"two times", {"run", "--for", "1", "--for", "2", "x.conf"}, "--for: may be given only once"},
      {"two ends", {"run", "--once", "--for", "3", "x.conf"}, "--once: cannot be combined with --for"},
      {"a flag with a value", {"run", "--once=2", "x.conf"}, "--once: expected no value, got '2'"},
      {"another flag with a value", {"run", "x.conf", "--json=1"}, "--json: expected no value, got '1'"},
      {"json for check", {"check", "--json", "x.conf"}, "--json: not an option of check"},
      {"an unknown event",
       {"run", "--events", "tag,foo", "x.conf"},
       "--events: expected names of exec, hook, message, refused, tag, value, version, separated by commas, got 'foo'"},
      {"a line feed in an argument", {"run", "--for", "1\n2", "x.conf"}, such_as + "'1\\x0a2'"},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    const ending e = run_dachost(r.args);
    expect_usage_error(e);
    EXPECT_NE(e.err.find(r.named), std::string::npos) << e.err;
  }
}

TEST_F(dachost, an_empty_value_after_an_equals_sign_leaves_every_file_as_it_is) {
  const std::string a = file("a.conf", "hostname=a"), b = file("b.conf", "hostname=b");
  const std::string name = "expected a file name, got ''";
  const struct row {
    const char* option;
    std::string error;
  } rows[] = {{"--status=", "--status: " + name},
              {"--plugin=", "--plugin: " + name},
              {"--exec=", "--exec: expected a program name, got ''"},
              {"--interface=", "--interface: expected the name of an interface, got ''"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.option);
    const ending e = run_dachost({"run", "--once", r.option, a, b});
    expect_usage_error(e);
    EXPECT_NE(e.err.find(r.error), std::string::npos) << e.err;
  }
  EXPECT_EQ(read_file(a), "hostname=a");
  EXPECT_EQ(std::distance(fs::directory_iterator(path("")), {}), 2) << "only the two files";
}

TEST_F(dachost, help_and_version_go_to_standard_output) {
  const struct row {
    texts args;
    const char* text;
  } rows[] = {{{"--help"}, "info"},       {{"run", "--help"}, "--once"}, {{"check", "-h"}, "--plugin"},
              {{"tags", "-h"}, "CONFIG"}, {{"info", "-h"}, "CONFIG"},    {{"--version"}, DAC_VERSION_TEXT}};
  for (const row& r : rows) {
    const ending e = run_dachost(r.args);
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(e.err, "");
    EXPECT_NE(e.out.find(r.text), std::string::npos) << e.out;
  }
}

TEST_F(dachost, help_of_each_sub_command_has_an_example_and_the_exit_statuses) {
  for (const std::string command : {"run", "top", "check", "tags", "info"}) {
    const ending e = run_dachost({command, "--help"});
    EXPECT_NE(e.out.find("\n  dachost " + command + ' '), std::string::npos) << e.out;
    EXPECT_NE(e.out.find("\nExit status: 0 on success"), std::string::npos) << e.out;
  }
}

TEST_F(dachost, help_names_the_exit_status_for_a_refused_file) {
  for (const texts& args : {texts{"--help"}, texts{"run", "--help"}, texts{"top", "--help"}}) {
    std::string out = run_dachost(args).out;
    std::replace(out.begin(), out.end(), '\n', ' ');
    EXPECT_NE(out.find("; 78 if a file was refused at the start."), std::string::npos) << out;
  }
}

TEST_F(dachost, a_usage_error_of_a_sub_command_points_to_its_help) {
  EXPECT_TRUE(run_dachost({"check", "--loud", "x.conf"}).err.ends_with("(dachost check --help shows the usage)\n"));
  EXPECT_TRUE(run_dachost({"publish"}).err.ends_with("(dachost --help shows the usage)\n"));
}

// ---------------------------------------------------------------- the library

TEST_F(dachost, a_library_that_cannot_be_loaded_is_named_in_one_line) {
  const std::string conf = file("h.conf", "hostname=h");
  const texts libraries = {path("missing.so"), file("text.so", "no library"), "no-such-name.so"};
  for (const std::string& library : libraries) {
    for (const char* command : {"run", "check", "tags", "info"}) {
      SCOPED_TRACE(library + ' ' + command);
      const ending e = run_dachost({command, "-p", library, conf});
      EXPECT_EQ(e.status, 1);
      EXPECT_EQ(e.out, "");
      EXPECT_EQ(lines(e.err).size(), 1U) << e.err;
      EXPECT_TRUE(e.err.starts_with("dachost: " + library + ": ")) << e.err;
      EXPECT_TRUE(e.err.ends_with("; --plugin FILE names another\n")) << e.err;
    }
  }
}

TEST_F(dachost, a_missing_entry_point_is_named) {
  const std::string conf = file("h.conf", "hostname=h");
  for (const char* entry :
       {"dac_create", "dac_destroy", "dac_start", "dac_stop", "dac_isrun", "dac_devicewriteobj", "dac_devicewriteval",
        "dac_getversion", "dac_getalltags", "dac_getalltagsex", "dac_getinfo", "g_verson"}) {
    SCOPED_TRACE(entry);
    const std::string library = plugin_without(entry);
    const ending e = run_dachost({"check", "-p", library, conf});
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.out, "");
    EXPECT_EQ(e.err, "dachost: " + library + ": lacks the entry point " + entry + "; --plugin FILE names another\n");
  }
}

TEST_F(dachost, without_p_the_nearest_library_is_loaded) {
  const std::string conf = file("h.conf", "hostname=h");
  fs::create_directory(path("bin"));
  fs::copy(built("dachost"), path("bin/dachost"));
  process_settings s;
  s.environment = {"LD_LIBRARY_PATH=" + path("loader"), "DAC_CHECK_PLUGIN=" + built("ip6dns")};
  const struct row {
    std::string place;
    std::string loaded;
  } rows[] = {// from the last resort to the first
              {"loader", "libip6dns.so"},
              {".", path("libip6dns.so")},
              {"lib/dac", path("lib/dac/libip6dns.so")},
              {"lib/" + built("triplet") + "/dac", path("lib/" + built("triplet") + "/dac/libip6dns.so")},
              {"bin", path("bin/libip6dns.so")}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.place);
    fs::create_directories(path(r.place));
    fs::copy(built("plugin"), path(r.place) + "/libip6dns.so");
    const ending e = process(command_line(path("bin/dachost"), {"run", "--for", "0.001", conf}), s).end();
    EXPECT_EQ(e.status, 0) << e.err;
    EXPECT_EQ(lines_of(e.out, "version"), texts{tabbed({"-", "version", DAC_VERSION_TEXT, "500", r.loaded})});
  }
}

// ---------------------------------------------------------------- check, tags, info

TEST_F(dachost, check_prints_the_host_name_of_each_file) {
  const std::string a = file("a.conf", "hostname = a.example ; comment\n");
  const std::string b = file("b.conf", "[any]\nHOSTNAME=my host\n");
  const ending e = run_to_end({"check", a, b});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.out, a + ": ok, host name a.example\n" + b + ": ok, host name my host\n");
  EXPECT_EQ(e.err, "");
}

TEST_F(dachost, check_takes_the_sample_configuration) {
  const std::string sample = SOURCE_DIR "/examples/ip6dns.conf";
  const ending e = run_to_end({"check", sample});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.out, sample + ": ok, host name gateway.example\n");
}

TEST_F(dachost, check_prints_the_plugins_message_with_a_remedy_and_continues) {
  const std::string missing = path("missing.conf");
  const std::string unnamed = file("unnamed.conf", "host=h");
  const std::string colon = file("colon.conf", "hostname=a:b");
  const std::string good = file("good.conf", "hostname=h");
  const ending e = run_to_end({"check", missing, path(""), unnamed, colon, good});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(lines(e.out),
            (texts{"load ip6dns driver config " + missing + " failed: No such file or directory",
                   path("") + ": not a regular file",
                   "not config hostname in " + unnamed + name_it + "; line 1 is not used: \"host=h\"",
                   "hostname contains illegal characters in " + colon + spell_it + "; check line 1: \"hostname=a:b\"",
                   good + ": ok, host name h"}));
}

TEST_F(dachost, check_names_stray_text_in_front_of_the_host_name) {
  const std::string hidden = file("hidden.conf", "# Pump house\nGateway 3\nhostname = a\n");
  const std::string second = file("second.conf", "hostname = a\nGateway 3\nhostname = b\n");
  const std::string line_2 = "line 2 hides hostname: \"Gateway 3\"; begin comments with #";
  const ending e = run_to_end({"check", hidden, second});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(lines(e.out),
            (texts{"not config hostname in " + hidden + ": " + line_2, second + ": ok, host name a, but " + line_2}));
  EXPECT_EQ(run_to_end({"run", "--once", hidden}).err,
            "dachost: not config hostname in " + hidden + ": " + line_2 + "; nothing is started\n");
}

TEST_F(dachost, check_and_run_name_the_line_of_a_misspelt_key) {
  const std::string misspelt = file("misspelt.conf", "# Pump house\nhostnme = a\n");
  const std::string message = "not config hostname in " + misspelt + name_it + "; check line 2: \"hostnme = a\"";
  EXPECT_EQ(lines(run_to_end({"check", misspelt}).out), texts{message});
  EXPECT_EQ(run_to_end({"run", "--once", misspelt}).err, "dachost: " + message + "; nothing is started\n");
}

TEST_F(dachost, check_and_run_name_the_first_line_that_is_not_used) {
  const std::string other = file("other.conf", "# Pump house\nname gateway.example\nport = 1\n");
  const std::string message =
      "not config hostname in " + other + name_it + "; line 2 is not used: \"name gateway.example\"";
  EXPECT_EQ(lines(run_to_end({"check", other}).out), texts{message});
  EXPECT_EQ(run_to_end({"run", "--once", other}).err, "dachost: " + message + "; nothing is started\n");
  const std::string comments = file("comments.conf", "# hostname = a\n");
  EXPECT_EQ(lines(run_to_end({"check", comments}).out), texts{"not config hostname in " + comments + name_it});
}

TEST_F(dachost, check_refuses_what_run_has_no_room_for) {
  const std::string conf = file("gw.conf", "hostname=h");
  texts args = {"check", "-p", built("ip6dns")};
  args.insert(args.end(), 1025, conf);
  process_settings patient;
  patient.limit = std::chrono::seconds(100);  // a thousand instances, slow with sanitizers
  const ending e = run_dachost(args, patient);
  EXPECT_EQ(e.status, 1);
  const texts out = lines(e.out);
  ASSERT_EQ(out.size(), 1025U);
  EXPECT_EQ(out[1023], conf + ": ok, host name h");
  EXPECT_EQ(out[1024], conf + ": refused without a reason; the plug-in may have no room for another instance");
}

TEST_F(dachost, a_file_whose_name_begins_with_a_dash_goes_after_two_dashes) {
  const auto check_there = [&](const texts& args) {
    texts argv = {"sh", "-c", "cd \"$0\" && exec \"$@\"", path("")};
    for (const std::string& word : command_line(built("dachost"), args)) argv.push_back(word);
    return process(argv).end();
  };
  for (const std::string name : {"-x.conf", "--long.conf", "-plan.conf"}) {
    SCOPED_TRACE(name);
    file(name, "hostname=h");
    const ending e = check_there({"check", "--plugin", built("plugin"), name});
    expect_usage_error(e);
    EXPECT_NE(e.err.find("; write -- before " + name), std::string::npos) << e.err;
    EXPECT_EQ(check_there({"check", "--plugin", built("plugin"), "--", name}).out, name + ": ok, host name h\n");
  }
  const ending e = check_there({"check", "-y.conf"});
  expect_usage_error(e);
  EXPECT_EQ(e.err.find("write --"), std::string::npos) << e.err;
}

TEST_F(dachost, check_names_a_file_that_is_refused_without_a_message) {
  const std::string bad = file("bad.conf", "refuse for a reason"), mute = file("mute.conf", "refuse");
  const ending e = run_fake_to_end({"check", bad, mute});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.out, bad + ": for a reason\n" + mute +
                       ": refused without a reason; the plug-in may have no room for another instance\n");
}

TEST_F(dachost, check_tags_info_and_run_print_the_last_failure_of_a_refused_file) {
  const std::string bad = file("bad.conf", "warn a cause\nrefuse for a reason");
  EXPECT_EQ(run_fake_to_end({"check", bad}).out, bad + ": for a reason\n");
  for (const std::string command : {"tags", "info"})
    EXPECT_EQ(run_fake_to_end({command, bad}).err, "dachost: " + bad + ": for a reason\n");
  EXPECT_EQ(run_fake_to_end({"run", bad}).err, "dachost: " + bad + ": for a reason; nothing is started\n");
}

TEST_F(dachost, check_tags_and_info_create_a_stopped_instance_and_destroy_it) {
  const std::string a = file("a.conf", "");
  const std::string b = file("b.conf", "");
  for (const std::string command : {"check", "tags", "info"}) {
    SCOPED_TRACE(command);
    fs::remove(path("journal"));
    EXPECT_EQ(run_fake_to_end({command, a, b}).status, 0);
    texts calls = journal();
    std::erase_if(calls, [](const std::string& call) { return call.starts_with("stop"); });
    EXPECT_EQ(calls, command == "check" ? (texts{"create a 0", "create b 1", "destroy a 0", "destroy b 1"})
                                        : (texts{"create a 0", "destroy a 0", "create b 1", "destroy b 1"}));
  }
}

TEST_F(dachost, a_file_may_have_the_name_that_ends_a_sub_command) {
  chmod(file("++", "hostname=h").c_str(), 0700);
  const auto check_there = [&](const texts& args) {
    texts argv = {"sh", "-c", "cd \"$0\" && PATH=$PATH: exec \"$@\"", path("")};
    for (const std::string& word : command_line(built("dachost"), args)) argv.push_back(word);
    return process(argv).end();
  };
  for (const texts& args :
       {texts{"check", "-p", built("plugin"), "++"}, {"check", "-p", built("plugin"), "--", "++"}}) {
    const ending e = check_there(args);
    EXPECT_EQ(e.err, "");
    EXPECT_EQ(e.out, "++: ok, host name h\n");
  }
  EXPECT_TRUE(check_there({"check", "-p", "++", "++"}).err.starts_with("dachost: ++: "));
  EXPECT_EQ(check_there({"run", "-p", built("plugin"), "--status", "++", "++"}).err,
            "dachost: --status: ++: is a configuration file, which would be replaced\n");
  EXPECT_EQ(check_there({"run", "-p", built("plugin"), "--exec", "true", "--state", "++", "++"}).err,
            "dachost: --state: ++: Not a directory\n");
  const ending e = check_there({"run", "-p", built("plugin"), "--once", "++", "--dry-run", "--exec", "++"});
  EXPECT_EQ(lines_of(e.out, "value"), texts{value_line("++", "h")}) << e.err;
  EXPECT_TRUE(lines_of(e.out, "exec").at(0).starts_with("++\texec\t++\tDAC_INSTANCE=++\t")) << e.out;
}

TEST_F(dachost, a_file_with_two_brackets_is_one_file_when_it_has_a_directory) {
  const std::string file_name = file("[a,b]", "hostname=h");
  EXPECT_EQ(run_to_end({"check", file_name}).out, file_name + ": ok, host name h\n");
}

TEST_F(dachost, control_characters_are_printed_as_their_codes) {
  const std::string conf = file("h.conf", "hostname=a\x1b[1mb\tc\x7f\xc3\xa4");
  EXPECT_EQ(run_to_end({"check", conf}).out, conf + ": ok, host name a\\x1b[1mb\\x09c\\x7f\xc3\xa4\n");
  EXPECT_EQ(run_to_end({"tags", conf}).out, conf + "\ta\\x1b[1mb\\x09c\\x7f\xc3\xa4\t6\t1\t\tipv6 address\n");
}

// In UTF-8, U+0080 to U+009F are two bytes; terminals obey U+009B as they obey ESC and '['.
TEST_F(dachost, control_characters_of_two_bytes_are_printed_as_their_codes) {
  const std::string conf = file("h.conf",
                                "hostname=\xc2\x80\xc2\x9b"
                                "1m\xc2\x9f\xc2\xa0\xc3\x9b");
  const std::string printed = "\\xc2\\x80\\xc2\\x9b1m\\xc2\\x9f\xc2\xa0\xc3\x9b";
  EXPECT_EQ(run_to_end({"check", conf}).out, conf + ": ok, host name " + printed + '\n');
  const ending e = run_to_end({"run", "--once", conf});
  EXPECT_EQ(lines_of(e.out, "tag"), texts{tag_line("h", printed)});
  EXPECT_EQ(lines_of(e.out, "value"), texts{value_line("h", printed)});
  EXPECT_EQ(e.out.find('\x9b'), e.out.find("\xc3\x9b") + 1) << "that of another character";
}

TEST_F(dachost, json_has_no_raw_control_character_and_is_valid_for_any_host_name) {
  const std::string name = "a\x1b[1m\x7f\xc2\x9b\tb\\\xc3\xa4\xff";
  const std::string read = "a\x1b[1m\x7f\xc2\x9b\tb\\\xc3\xa4\xef\xbf\xbd";
  const std::string conf = file("h.conf", "hostname=" + name);
  texts documents = lines(run_to_end({"info", conf}).out);
  ASSERT_EQ(documents.size(), 1U);
  EXPECT_EQ(json::parse(documents[0])["host"], read) << documents[0];
  for (const std::string& line : lines(run_to_end({"run", "--once", "--json", conf}).out)) {
    documents.push_back(line);
    EXPECT_EQ(json::parse(line).value("tag", read), read) << line;
  }
  for (const std::string& line : documents)
    for (const char* control : {"\x1b", "\x7f", "\xc2\x9b"}) EXPECT_EQ(line.find(control), std::string::npos) << line;
}

TEST_F(dachost, tags_lists_what_the_plugin_reports) {
  const std::string a = file("a.conf", "hostname=a.example");
  const std::string bad = file("bad.conf", "");
  const std::string b = file("b.conf", "hostname=" + std::string(200, 'b'));
  const ending e = run_to_end({"tags", a, bad, b});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(lines(e.out), (texts{a + "\ta.example\t6\t1\t\tipv6 address",
                                 b + '\t' + std::string(200, 'b') + "\t6\t1\t\tipv6 address"}));
  EXPECT_EQ(e.err, "dachost: not config hostname in " + bad + name_it + '\n');
}

TEST_F(dachost, info_prints_the_status_document_whole) {
  const std::string a = file("a.conf", "hostname=a.example/x");
  const std::string bad = file("bad.conf", "");
  const std::string b = file("b.conf", "hostname=" + std::string(5000, 'b'));
  const ending e = run_to_end({"info", a, bad, b});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(lines(e.out), (texts{R"({"status":"stop","host":"a.example\/x"})",
                                 R"({"status":"stop","host":")" + std::string(5000, 'b') + R"("})"}));
  EXPECT_EQ(e.err, "dachost: not config hostname in " + bad + name_it + '\n');
}

// ---------------------------------------------------------------- run: what is printed

TEST_F(dachost, run_prints_version_tags_messages_and_values) {
  const ending e = run_to_end({"run", "--once", file("gw.conf", "hostname=gw.example")});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  texts out = lines(e.out);
  for (std::string& line : out) line.erase(0, line.find('\t') + 1);
  const texts messages = started_and_stopped("gw");
  EXPECT_EQ(out, (texts{tabbed({"-", "version", DAC_VERSION_TEXT, "500", built("plugin")}),
                        tag_line("gw", "gw.example"), messages[0], value_line("gw", "gw.example"), messages[1]}));
}

TEST_F(dachost, every_line_begins_with_the_time) {
  const auto now = [] { return std::chrono::system_clock::now(); };
  const auto before = std::chrono::floor<std::chrono::seconds>(now());
  const ending e = run_to_end({"run", "--once", file("gw.conf", "hostname=gw.example")});
  for (const std::string& line : lines(e.out)) {
    tm utc{};
    int ms = -1, n = 0;
    const std::string time = split(line, '\t')[0];
    const char* rest = strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    ASSERT_TRUE(rest) << line;
    EXPECT_EQ(std::sscanf(rest, ".%3dZ%n", &ms, &n), 1) << line;
    EXPECT_EQ(rest[n], 0) << line;
    EXPECT_GE(std::chrono::system_clock::from_time_t(timegm(&utc)), before) << line;
    EXPECT_LE(std::chrono::system_clock::from_time_t(timegm(&utc)) + std::chrono::milliseconds(ms), now()) << line;
  }
}

TEST_F(dachost, writes_no_file_where_it_runs) {
  const std::string conf = file("gw.conf", "hostname=gw");
  const std::string command =
      built("emulator") + ' ' + built("dachost") + " run --once -p " + built("plugin") + ' ' + conf;
  const ending e = process({"sh", "-c", "cd /proc && exec " + command}).end();
  EXPECT_EQ(e.status, 0) << e.err;
  EXPECT_EQ(lines_of(e.out, "value"), texts{value_line("gw", "gw")});
}

TEST_F(dachost, once_waits_for_the_value_of_every_instance) {
  texts args = {"run", "--once"};
  texts expected;
  for (int i = 10; i < 30; ++i) {
    const std::string n = std::to_string(i);
    args.push_back(file("i" + n + ".conf", "hostname=h" + n));
    expected.push_back(value_line("i" + n, "h" + n));
  }
  const ending e = run_to_end(args);
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(lines_of(e.out, "value"), expected);
}

TEST_F(dachost, for_ends_after_its_seconds_and_not_before) {
  const std::string conf = file("gw.conf", "hostname=h");
  const ending early = run_to_end({"run", "--for", "0.001", conf});
  EXPECT_EQ(early.status, 0);
  EXPECT_EQ(lines_of(early.out, "message"), started_and_stopped("gw"));
  process p = start({"run", "--for", "1000000000", conf});
  p.await_out(value_line("gw", "h"));
  terminate(p);
}

TEST_F(dachost, json_is_one_object_per_line) {
  const ending e = run_to_end({"run", "--once", "--json", file("gw.conf", "hostname=gw.example")});
  EXPECT_EQ(e.status, 0);
  json events;
  for (const std::string& line : lines(e.out)) {
    events.push_back(json::parse(line));
    EXPECT_EQ(events.back()["time"].get<std::string>().size(), std::strlen("2026-01-31T12:34:56.789Z"));
    EXPECT_EQ(events.back()["schema"], 1);
    for (const char* member : {"schema", "time", "addresses", "picked"}) events.back().erase(member);
  }
  const auto message = [](const char* text) {
    return json{{"event", "message"}, {"level", "info"}, {"instance", "gw"}, {"source", "plug-in"}, {"text", text}};
  };
  EXPECT_EQ(events,
            (json{{{"event", "version"}, {"version", DAC_VERSION_TEXT}, {"number", 500}, {"plugin", built("plugin")}},
                  {{"event", "tag"},
                   {"instance", "gw"},
                   {"tag", "gw.example"},
                   {"type", 6},
                   {"flag", 1},
                   {"text1", ""},
                   {"text2", "ipv6 address"}},
                  message("start wrk_process success."),
                  {{"event", "value"},
                   {"instance", "gw"},
                   {"tag", "gw.example"},
                   {"type", 6},
                   {"value", own_addresses()},
                   {"change", true}},
                  message("stop wrk_process success.")}));
  EXPECT_EQ(e.err, "");
}

TEST_F(dachost, bytes_that_are_not_UTF_8_become_replacement_characters_in_json) {
  const struct row {
    const char* label;
    std::string hostname;
    std::string printed;
  } rows[] = {{"a byte that begins nothing",
               "a\xff"
               "b",
               "a\xef\xbf\xbd"
               "b"},
              {"a character cut off by the record's size", std::string(78, 'x') + "\xc3\xa4",
               std::string(78, 'x') + "\xef\xbf\xbd"},
              {"a single character", "\xc3\xa4", "\xc3\xa4"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    const ending e = run_to_end({"run", "--once", "--json", file("gw.conf", "hostname=" + r.hostname)});
    EXPECT_EQ(e.status, 0) << e.err;
    EXPECT_EQ(json::parse(lines(e.out).at(3))["tag"], r.printed);
  }
}

TEST_F(dachost, texts_that_fill_their_fields_are_printed_up_to_the_last_byte) {
  const std::string conf = file("odd.conf", "odd records");
  const std::string name(80, 'n'), first(1000, 'a'), second(1000, 'b');
  const ending text = run_fake_to_end({"run", "--once", conf});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(lines_of(text.out, "value"),
            (texts{tabbed({"odd", "value", name, first}), tabbed({"odd", "value", name, second})}));
  const texts objects = lines(run_fake_to_end({"run", "--once", "--json", conf}).out);
  EXPECT_EQ(json::parse(objects.at(2))["value"], first);
  EXPECT_EQ(json::parse(objects.at(3))["value"], second);
}

TEST_F(dachost, an_instance_is_named_after_its_file_or_its_path_if_names_collide) {
  const std::string x = file("x/gw.conf", ""), y = file("y/gw.conf", ""), one = file("one.conf", "");
  const std::string two = file("two.conf", ""), hidden = file(".hidden", ""), dots = file("a.b.conf", "");
  const ending e = run_fake_to_end({"run", "--for", "0.001", x, y, one, one, two, hidden, dots});
  texts names;
  for (const std::string& line : lines(e.out))
    if (split(line, '\t')[2] == "tag") names.push_back(split(line, '\t')[1]);
  EXPECT_EQ(names, (texts{x, y, one, one + "#2", "two", ".hidden", "a.b"}));
}

// ---------------------------------------------------------------- run: what is refused

TEST_F(dachost, a_refused_file_prevents_every_start) {
  const std::string a = file("a.conf", "hostname=a"), bad = file("bad.conf", "hostname=");
  const std::string reason =
      "dachost: not config hostname in " + bad + name_it + "; check line 1: \"hostname=\"; nothing is started\n";
  const texts failure = {tabbed({"bad", "failure", "not config hostname in " + bad})};
  const ending text = run_to_end({"run", a, bad});
  EXPECT_EQ(text.status, 78);
  EXPECT_EQ(text.err, reason);
  EXPECT_EQ(lines(text.out).size(), 2U) << text.out;
  EXPECT_EQ(lines_of(text.out, "failure"), failure);
  const ending objects = run_to_end({"run", "--json", a, bad});
  EXPECT_EQ(objects.status, 78);
  EXPECT_EQ(lines(objects.out).size(), 3U) << objects.out;
  EXPECT_EQ(objects.err, reason);
}

TEST_F(dachost, instances_made_before_a_refusal_are_destroyed) {
  const std::string a = file("a.conf", ""), mute = file("mute.conf", "refuse");
  const ending e = run_fake_to_end({"run", a, mute});
  EXPECT_EQ(e.status, 78);
  EXPECT_EQ(e.err,
            "dachost: " + mute +
                ": refused without a reason; the plug-in may have no room for another instance; nothing is started\n");
  EXPECT_EQ(journal().at(0), "create a 0");
  EXPECT_EQ(journal().back(), "destroy a 0");
}

TEST_F(dachost, an_instance_that_cannot_be_started_ends_the_run_in_order) {
  const std::string a = file("a.conf", ""), b = file("b.conf", "throw it");
  const ending e = run_fake_to_end({"run", a, b});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: " + b + ": cannot be started: Resource temporarily unavailable\n");
  expect_gone({"a 0", "b 1"});
}

TEST_F(dachost, a_worker_that_gets_no_thread_is_reported_with_its_file) {
  if (!no_threads::possible()) GTEST_SKIP() << "the sanitizer or the emulator needs threads";
  const no_threads here;
  const std::string a = file("a.conf", "hostname=a");
  const ending e = run_to_end({"run", a});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: " + a + ": cannot be started: Resource temporarily unavailable\n");
}

TEST_F(dachost, instances_are_stopped_one_by_one_when_threads_are_refused) {
  if (!no_threads::possible()) GTEST_SKIP() << "the sanitizer or the emulator needs threads";
  const no_threads here;
  const ending e =
      run_fake_to_end({"run", "--for", "0.001", file("a.conf", ""), file("b.conf", ""), file("c.conf", "")});
  EXPECT_EQ(e.status, 0);
  expect_gone({"a 0", "b 1", "c 2"});
}

// ---------------------------------------------------------------- run: signals

TEST_F(dachost, a_stop_signal_stops_destroys_unloads_and_ends_with_status_0) {
  process_settings s;
  s.environment = {"LD_DEBUG=files", "LD_DEBUG_OUTPUT=" + path("loader")};
  for (const int sig : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(sig);
    process p = start({"run", file("gw.conf", "hostname=h")}, s);
    p.await_out("\tvalue\t");
    p.signal(sig);
    const ending e = p.end();
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(e.err, "");
    EXPECT_TRUE(e.out.ends_with("\tgw\tmessage\tstop wrk_process success.\n")) << e.out;
    EXPECT_NE(take_loader_log().find("file=" + built("plugin") + " [0];  destroying link map"), std::string::npos);
  }
}

TEST_F(dachost, every_instance_is_stopped_before_any_is_destroyed) {
  run_two({}, [](process& /*p*/) {});
  texts calls = journal();
  ASSERT_EQ(calls.size(), 10U);
  std::sort(calls.begin() + 4, calls.begin() + 6);
  calls.resize(6);
  EXPECT_EQ(calls, (texts{"create a 0", "create b 1", "start a 0", "start b 1", "stop a 0", "stop b 1"}));
  expect_gone({"a 0", "b 1"});
}

TEST_F(dachost, instances_are_stopped_in_parallel) {
  texts args = {"run", "--for", "0.001"};
  texts expected;
  for (int i = 10; i < 50; ++i) {
    args.push_back(file("i" + std::to_string(i) + ".conf", "wait for 40"));
    expected.push_back("stop i" + std::to_string(i) + ' ' + std::to_string(i - 10));
  }
  EXPECT_EQ(run_fake_to_end(args).status, 0);
  texts stops = calls_of("stop");
  std::sort(stops.begin(), stops.end());
  stops.erase(std::unique(stops.begin(), stops.end()), stops.end());
  EXPECT_EQ(stops, expected);
}

TEST_F(dachost, SIGHUP_reads_the_files_again) {
  const ending e = rewrite("hostname=after", [](process& p) { p.await_out("\tvalue\tafter\t"); });
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(lines_of(e.out, "value"), (texts{value_line("gw", "after"), value_line("gw", "before")}));
  EXPECT_EQ(lines_of(e.out, "tag"), (texts{tag_line("gw", "after"), tag_line("gw", "before")}));
  EXPECT_EQ(lines_of(e.out, "message").size(), 4U);
}

TEST_F(dachost, SIGHUP_leaves_the_instance_of_a_broken_file_running) {
  const ending e = rewrite("hostname=a:b", [](process& p) { p.await_err("\n"); });
  const std::string conf = path("gw.conf");
  EXPECT_EQ(e.err, "dachost: hostname contains illegal characters in " + conf + spell_it +
                       "; check line 1: \"hostname=a:b\"; the old instance continues\n");
  EXPECT_EQ(lines_of(e.out, "tag"), texts{tag_line("gw", "before")});
  EXPECT_EQ(lines_of(e.out, "message"), started_and_stopped("gw"));
}

TEST_F(dachost, SIGHUP_replaces_the_instances_of_accepted_files_only) {
  const ending e = run_two({}, [this](process& p) {
    file("b.conf", "refuse for a reason");
    p.signal(SIGHUP);
    ASSERT_TRUE(await_journal("start a 2"));
  });
  EXPECT_EQ(e.err, "dachost: " + path("b.conf") + ": for a reason; the old instance continues\n");
  EXPECT_EQ(calls_of("create"), (texts{"create a 0", "create b 1", "create a 2", "create b -1"}));
  EXPECT_EQ(calls_of("start"), (texts{"start a 0", "start b 1", "start a 2"}));
  EXPECT_EQ(calls_of("stop").at(0), "stop a 0") << "b is not stopped";
  expect_gone({"a 0", "a 2", "b 1"});
}

TEST_F(dachost, SIGHUP_replaces_in_batches_when_the_plugin_is_nearly_full) {
  const ending e = run_two({"FAKE_ROOM=3"}, [this](process& p) {
    p.signal(SIGHUP);
    ASSERT_TRUE(await_journal("start b 3"));
  });
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(calls_of("start"), (texts{"start a 0", "start b 1", "start a 2", "start b 3"}));
  expect_gone({"a 0", "a 2", "b 1", "b 3"});
}

TEST_F(dachost, SIGHUP_replaces_nothing_when_the_plugin_is_full) {
  const ending e = run_two({"FAKE_ROOM=2"}, [this](process& p) {
    p.signal(SIGHUP);
    p.await_err(path("b.conf"));
  });
  const std::string unchanged =
      ": refused without a reason; the plug-in may have no room for another instance; the old instance continues";
  EXPECT_EQ(lines(e.err), (texts{"dachost: " + path("a.conf") + unchanged, "dachost: " + path("b.conf") + unchanged}));
  expect_gone({"a 0", "b 1"});
}

// ---------------------------------------------------------------- run: readers

TEST_F(dachost, output_that_cannot_be_written_is_an_error) {
  const std::string conf = file("gw.conf", "hostname=h");
  const struct row {
    process_settings output;
    const char* text;
  } rows[] = {{{.out_file = "/dev/full"}, "dachost: standard output: No space left on device\n"},
              {{.out_closed = true}, "dachost: standard output: Bad file descriptor\n"}};
  for (const row& r : rows) {
    for (const char* command : {"run", "check", "tags", "info"}) {
      SCOPED_TRACE(std::string(command) + ' ' + r.text);
      const ending e = run_to_end({command, conf}, r.output);
      EXPECT_EQ(e.status, 1);
      EXPECT_EQ(e.err, r.text);
    }
    const ending refused = run_to_end({"run", file("no.conf", "")}, r.output);
    EXPECT_EQ(refused.status, 1) << "and not that of a refused file";
    EXPECT_TRUE(refused.err.starts_with(r.text)) << refused.err;
  }
}

TEST_F(dachost, a_reader_that_closes_ends_the_run_at_once) {
  process p = start({"run", file("gw.conf", "hostname=h")});
  p.await_out("\tvalue\t");
  p.close_out();
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: standard output: Broken pipe\n");
}

TEST_F(dachost, a_signal_stops_a_run_whose_reader_does_not_read) {
  const std::string conf = file("gw.conf", "flood 4000");
  for (const char* seconds : {"1000", "0.001"}) {
    SCOPED_TRACE(seconds);
    fs::remove(path("journal"));
    process p = start_fake({"run", "--for", seconds, conf});
    ASSERT_TRUE(await_journal("start gw 0"));
    p.signal(SIGTERM);
    EXPECT_EQ(p.end_unread(), 1);
    expect_gone({"gw 0"});
    EXPECT_EQ(p.end().err, "dachost: standard output: timed out waiting for the reader\n");
  }
}

TEST_F(dachost, a_signal_ends_a_refused_run_whose_reader_does_not_read) {
  texts args = {"run"};
  for (int i = 0; i < 100; ++i)
    args.push_back(file('r' + std::to_string(i) + ".conf", "refuse " + std::string(2000, 'x')));
  process p = start_fake(args);
  p.await_out("\tfailure\t");
  p.signal(SIGTERM);
  EXPECT_EQ(p.end_unread(), -SIGTERM);
}

TEST_F(dachost, a_signal_ends_a_failed_run_whose_reader_does_not_read) {
  process p = start_fake({"run", file("gw.conf", "flood 4000")});
  p.await_out("message 1 of 4000");
  file("gw.conf", "throw");
  p.signal(SIGHUP);
  ASSERT_TRUE(await_journal("start gw 1"));
  p.signal(SIGTERM);
  EXPECT_EQ(p.end_unread(), -SIGTERM);
}

TEST_F(dachost, a_slow_reader_gets_every_line) {
  process p = start_fake({"run", "--for", "0.001", file("gw.conf", "flood 4000")});
  ASSERT_TRUE(await_journal("destroy gw 0"));
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  const texts out = lines(e.out);
  ASSERT_EQ(out.size(), 4002U);
  for (size_t i = 1; i <= 4000; ++i)
    EXPECT_TRUE(out[i + 1].ends_with("\tmessage " + std::to_string(i) + " of 4000")) << out[i + 1];
}
