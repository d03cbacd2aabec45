// run: prints what the instances report, and passes their values to a hook.
#include <net/if.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "host/commands/commands.h"
#include "host/commands/run_status.h"
#include "host/commands/status_file.h"
#include "host/commands/value_events.h"
#include "host/display/printer.h"
#include "host/hook/programs.h"
#include "host/instances/supervisor.h"
#include "host/report.h"

namespace {

const char* level_name(severity s) {
  if (s == severity::error) return "error";
  return s == severity::warning ? "warning" : "info";
}

std::unique_ptr<printer> make_printer(const options& o, output& out) {
  if (o.json) return make_json_printer(out, o.events.empty() ? event_names : o.events);
  return make_text_printer(out, o.events.empty() ? text_events : o.events);
}

// What the run uses the file for, or "".
std::string role_of(const std::string& file, const plugin& p, const options& o) {
  const auto is_file = [&file](const std::string& other) {
    std::error_code ignored;
    return std::filesystem::equivalent(file, other, ignored);
  };
  if (std::any_of(o.files.begin(), o.files.end(), is_file)) return "a configuration file";
  // Without a slash, the dynamic loader has searched for it.
  if (p.file.find('/') != std::string::npos && is_file(p.file)) return "the plug-in";
  return !o.hook.program.empty() && starts(o.hook.program, file) ? "a program of --exec" : "";
}

// The status file replaces what has its name.
std::string reason_against_status_file(const plugin& p, const options& o) {
  using std::filesystem::file_type;
  std::error_code ignored;
  const file_type type = std::filesystem::symlink_status(o.status, ignored).type();
  if (type != file_type::regular && type != file_type::not_found && type != file_type::none)
    return "not a regular file";
  const std::string role = role_of(o.status, p, o);
  if (!role.empty()) return "is " + role + ", which would be replaced";
  const std::string error = unwritable(o.status);
  return error.empty() ? "" : "cannot be written: " + error;
}

void check_status_file(const plugin& p, const options& o) {
  if (o.status.empty()) return;
  const std::string reason = reason_against_status_file(p, o);
  if (!reason.empty()) throw std::invalid_argument("--status: " + o.status + ": " + reason);
}

// Some file systems, such as /proc, create no files regardless of the permissions.
std::string reason_against_state_directory(const std::string& path) {
  if (access((path + "/.").c_str(), W_OK | X_OK) != 0) return std::strerror(errno);
  const std::string error = unwritable(path + "/check");
  return error.empty() ? "" : "no file can be created in it: " + error;
}

void check_state_directory(const std::string& path) {
  if (path.empty()) return;
  const std::string reason = reason_against_state_directory(path);
  if (!reason.empty()) throw std::invalid_argument("--state: " + path + ": " + reason);
}

// An interface may appear later, and an exclusion of one that is not there has its effect.
void check_interfaces(const address_filter& f, output& err) {
  char real[IF_NAMESIZE] = {};  // an alternative name selects nothing
  for (const std::string& name : f.interfaces)
    if (!if_indextoname(if_nametoindex(name.c_str()), real) || name != real)
      report(err, "--interface " + name + ": no interface has this name now", severity::warning);
}

class runner : fleet_observer {
 public:
  runner(const hook_runner::environment& e, service_manager& m, const plugin& p, const options& o, output& out,
         output& err)
      : _loop(e.loop),
        _plugin(p),
        _options(o),
        _out(out),
        _err(err),
        _printer(make_printer(o, out)),
        _values(e.loop, e.addresses, o.hook.addresses, o.json, *_printer, instance_names(o.files)),
        _hooks(e, o.hook, o.files.size(), *_printer, err),
        _tag_names(o.files.size()),
        _has_published(o.files.size()),
        _refusals(o.files.size()),
        _status(e.loop, m, instance_names(o.files), o.status, err),
        _supervisor(e.loop, p, o.files, *this) {
    _hooks.observe([this](const hook_event& h) { on_hook(h); });
  }

  int run();

 private:
  void on_tag(size_t i, const tag& t) override;
  void on(const event& e, const value& v) override;
  void on(const event& e, const message& m) override;
  void on_refused(size_t i, const std::string& what) override;
  void on_hook(const hook_event& h);
  void on_reload() override { _status.on_reload(); }
  void on_loaded() override { _status.on_ready(); }

  bool is_done() const;
  bool lacks_values();
  const std::string& name(size_t i) const { return _supervisor.instances().name(i); }

  event_loop& _loop;
  const plugin& _plugin;
  const options& _options;
  output& _out;
  output& _err;
  std::unique_ptr<printer> _printer;
  value_events _values;
  hook_runner _hooks;
  std::vector<std::string> _tag_names;  // by file
  std::vector<bool> _has_published;     // by file
  std::vector<std::string> _refusals;   // by file, the latest
  run_status _status;
  supervisor _supervisor;
};

int runner::run() {
  _printer->print({_loop.wall_time(),
                   "",
                   "version",
                   {{"version", _plugin.version_text}, {"number", _plugin.version}, {"plugin", _plugin.file}}});
  _supervisor.start_all();
  bool is_over = false;
  const auto end = _options.time ? _loop.call_in(*_options.time, [&is_over] { is_over = true; }) : nullptr;
  _loop.run_until([&] { return is_over || is_done(); });
  _status.on_stop();
  _values.stop();
  const bool is_stopped = _supervisor.stop();
  _hooks.close();
  _loop.run_until([this] { return _hooks.is_idle(); });
  _status.finish();
  const bool has_failed = _options.once && (lacks_values() || _hooks.has_given_up());
  const int status = finish(_loop, _supervisor, is_stopped, _out, _err);
  return has_failed ? 1 : status;
}

// A hook that never got a value has not run.
bool runner::lacks_values() {
  if (_options.hook.program.empty() || _supervisor.has_refused()) return false;
  bool lacks = false;
  for (size_t i = 0; i < _has_published.size(); ++i) {
    if (_has_published[i]) continue;
    report(_err, name(i) + ": no value was published; " + _options.hook.program + " was not started");
    lacks = true;
  }
  return lacks;
}

void runner::on_tag(size_t i, const tag& t) {
  _tag_names[i] = t.name;
  _status.on_tag(i, t.name);
  _printer->print({_loop.wall_time(),
                   name(i),
                   "tag",
                   {{"tag", t.name}, {"type", t.type}, {"flag", t.flag}, {"text1", t.text1}, {"text2", t.text2}}});
}

void runner::on_refused(size_t i, const std::string& what) {
  const severity level = _supervisor.instances().get(i) ? severity::warning : severity::error;
  _refusals[i] = what;
  report(_err, what, level);
  _printer->print(
      {_loop.wall_time(), name(i), "refused", {{"file", _options.files[i]}, {"text", what}}, {}, level_name(level)});
  _status.on_refused(i, what);
}

// As text, failures are in the output that people read, unless --events omits them. Programs read JSON, so people find
// failures on standard error. There the reason for which a file was refused has been reported with the file.
void runner::on(const event& e, const message& m) {
  const bool is_failure = m.level == DAC_LEVEL_FAILURE;
  _printer->print({e.time,
                   name(e.index),
                   "message",
                   {{"source", "plug-in", false}, {"text", m.text}},
                   {},
                   level_name(is_failure ? severity::error : severity::info)});
  const bool is_reported = _refusals[e.index].find(m.text) != std::string::npos;
  const bool is_read = !_options.json && _printer->prints("message");
  if (is_failure && !is_read && !is_reported) report(_err, name(e.index) + ": " + m.text);
}

// A record holds only the beginning of a long name; the hook gets the whole name.
void runner::on(const event& e, const value& v) {
  _values.print(e, v);
  _has_published[e.index] = true;
  _status.on_value(e.index, e.time, v.text);
  const std::string& whole = _tag_names[e.index];
  const bool is_cut = v.tag.size() >= DAC_NAME_SIZE - 1 && whole.starts_with(v.tag);
  _hooks.submit(e.index, {e.time, name(e.index), is_cut ? whole : v.tag, v.text});
}

void runner::on_hook(const hook_event& h) {
  if (h.result == std::string_view("saved")) {  // no run
    _status.on_hook(h.index, h.time, "");
    return;
  }
  std::string text = h.text;
  if (h.result == std::string_view("ok") || h.result == std::string_view("failed")) {
    const std::string recovery = _status.on_hook(h.index, h.time, h.text);
    if (!recovery.empty()) report(_err, name(h.index) + ": " + _options.hook.program + ": " + recovery, severity::info);
    text += recovery;
  }
  _printer->print({_loop.wall_time(),
                   name(h.index),
                   "hook",
                   {{"program", _options.hook.program}, {"result", h.result}, {"text", text}},
                   {},
                   level_name(h.level)});
}

bool runner::is_done() const {
  if (_supervisor.is_to_stop() || _out.error() != 0) return true;
  const auto has_published = [](bool published) { return published; };
  return _options.once && std::all_of(_has_published.begin(), _has_published.end(), has_published) && _hooks.is_idle();
}

}  // namespace

int run(const hook_runner::environment& e, service_manager& m, const plugin& p, const options& o, output& out,
        output& err) {
  if (!o.hook.program.empty()) {
    check_hook(o.hook.program);
    check_state_directory(o.hook.state);
  }
  check_status_file(p, o);
  check_interfaces(o.hook.addresses, err);
  return runner(e, m, p, o, out, err).run();
}

int finish(event_loop& l, const supervisor& s, bool is_stopped, output& out, output& err) {
  if (!is_stopped) {
    report(err, "the plug-in does not return; the instances are not stopped");
    drain(l, out, err, [] { return true; });
    l.exit(1);
  }
  if (!s.failure().empty()) report(err, s.failure());
  if (s.has_refused() || !s.failure().empty()) {
    drain_or_die(l, out, err);
    return s.has_refused() ? EX_CONFIG : 1;
  }
  drain(l, out, err, [&s] { return s.is_to_stop(); });
  return 0;
}
