#include "host/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "driver/dac.h"
#include "host/display/printer.h"

namespace {

// ---------------------------------------------------------------- help

constexpr char status_of_a_run[] = R"(
Exit status: 0 on success, also after SIGINT or SIGTERM; 1 if the plug-in could
not be loaded, a thread could not be created, the output could not be written,
or with --once a program failed or did not get its value; 2 for wrong usage or
an unusable program, state directory or status file; 78 if a file was refused
at the start.)";

constexpr char status_of_a_table[] = R"(
Exit status: 0 on success, also after SIGINT or SIGTERM; 1 if the plug-in could
not be loaded, a thread could not be created, or the output could not be
written; 2 for wrong usage; 78 if a file was refused at the start.)";

constexpr char status_of_a_query[] = R"(
Exit status: 0 on success; 1 if a file was refused, the plug-in could not be
loaded, or the output could not be written; 2 for wrong usage.)";

std::string footer_of(command what) {
  switch (what) {
    case command::run:
      return std::string(R"(Examples:
  dachost run --once gateway.conf           prints what this machine publishes
  dachost run --json gateway.conf           prints one JSON object per line
  dachost run --exec ./update gateway.conf  starts ./update on each change
)") + status_of_a_run;
    case command::top:
      return std::string(R"(Keys: q ends; arrows, PgUp, PgDn, Home and End scroll.

Examples:
  dachost top /etc/ip6dns/*.conf            updates the screen every second
  dachost top --once gateway.conf           prints one table
  dachost top *.conf >>tables               appends one table per second
)") + status_of_a_table;
    case command::check:
      return std::string(R"(Example:
  dachost check /etc/ip6dns/*.conf          prints one line per file: ok or the error
)") + status_of_a_query;
    case command::tags:
      return std::string(R"(Example:
  dachost tags gateway.conf | cut -f 2      prints the host name in the file
)") + status_of_a_query;
    case command::info:
      break;
  }
  return std::string(R"(Example:
  dachost info gateway.conf                 {"status":"stop","host":"gateway.example"}
)") + status_of_a_query;
}

std::string footer() {
  return R"(Examples:
  dachost check gateway.conf                validates a configuration file
  dachost run gateway.conf                  prints every value as it arrives
  dachost run --help                        lists the options of a sub-command

Exit status: 0 on success; 1 on failure; 2 for wrong usage; 78 if a file was
refused at the start. The manual is dachost(1).)";
}

// ---------------------------------------------------------------- options

constexpr double most_seconds = 1e9;  // fits nanoseconds even after the clock is added

double seconds_per(std::string_view unit) {
  if (unit.empty() || unit == "s") return 1;
  if (unit == "m") return 60;
  if (unit == "h") return 3600;
  return unit == "d" ? 86400 : 0;
}

// More seconds than a double holds become infinity. None if the text is not a number and a unit.
std::optional<double> seconds(const std::string& text) {
  double n = 0;
  const char* end = text.data() + text.size();
  if (text.empty() || (std::isdigit(static_cast<unsigned char>(text[0])) == 0 && text[0] != '.')) return std::nullopt;
  const auto [last, failed] = std::from_chars(text.data(), end, n, std::chars_format::fixed);
  const double per_unit = seconds_per({last, end});
  if (failed == std::errc::invalid_argument || per_unit == 0) return std::nullopt;
  return failed == std::errc() ? n * per_unit : std::numeric_limits<double>::infinity();
}

std::string expected(const std::string& what, const std::string& text) {
  return "expected " + what + ", got '" + text + "'";
}

std::string check_duration(const std::string& text) {
  const std::optional<double> s = seconds(text);
  if (!s) return expected("a duration such as 90, 90s, 5m, 2h or 1d", text);
  return *s > most_seconds ? expected("at most 11574d", text) : "";
}

std::string check_positive(const std::string& text) {
  return seconds(text) == 0.0 ? expected("more than 0, for example 90s", text) : check_duration(text);
}

std::chrono::nanoseconds duration(const std::string& text) {
  return std::chrono::ceil<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds(text).value_or(0)));
}

template <class TO>
CLI::Option* add_duration(CLI::App& app, const std::string& name, TO& to, const std::string& text) {
  return app
      .add_option_function<std::string>(
          name, [&to](const std::string& word) { to = duration(word); }, text)
      ->type_name("DURATION");
}

std::string check_directory(const std::string& text) { return text.empty() ? expected("a directory name", text) : ""; }

std::string check_file(const std::string& text) { return text.empty() ? expected("a file name", text) : ""; }

CLI::App* add_command(CLI::App& app, options& o, command what, const std::string& name, const std::string& text) {
  CLI::App* c = app.add_subcommand(name, text);
  c->add_option("-p,--plugin", o.plugin, "The plug-in; by default dachost searches for libip6dns.so, see dachost(1)")
      ->type_name("FILE")
      ->check(check_file);
  c->add_option("CONFIG", o.files, "Configuration files, one instance per file")
      ->type_name("FILE")
      ->required()
      ->check(check_file);
  c->callback([&o, what] { o.what = what; });
  c->footer(footer_of(what));
  return c;
}

void add_ends(CLI::App* c, options& o) {
  CLI::Option* once =
      c->add_flag("--once", o.once, "Exit when every instance has published once")->disable_flag_override();
  add_duration(*c, "--for", o.time, "Exit after that time")->check(check_positive)->excludes(once);
}

std::string check_program(const std::string& text) { return text.empty() ? expected("a program name", text) : ""; }

std::optional<address_filter::kind> filter_named(const std::string& text) {
  for (const auto& [name, which] : filter_names)
    if (name == text) return which;
  return std::nullopt;
}

std::string check_filter(const std::string& text) {
  return filter_named(text) ? "" : expected("all, global or stable", text);
}

std::string check_interface(const std::string& text) {
  return text.empty() || text == "!" ? expected("the name of an interface", text) : "";
}

void add_interface(address_filter& f, const std::string& text) {
  const bool is_excluded = text.starts_with('!');
  (is_excluded ? f.excluded : f.interfaces).push_back(text.substr(is_excluded ? 1 : 0));
}

void check_contradictions(const address_filter& f) {
  for (const std::string& name : f.interfaces)
    if (std::find(f.excluded.begin(), f.excluded.end(), name) != f.excluded.end())
      throw CLI::ValidationError("--interface", "'" + name + "' is both wanted and excluded");
}

void add_filter(CLI::App& run, address_filter& f) {
  run.add_option_function<std::string>(
         "--pick", [&f](const std::string& text) { f.which = *filter_named(text); },
         "The addresses that lines show and the program gets: all, global or stable")
      ->type_name("WHICH")
      ->check(check_filter);
  run.add_option_function<std::vector<std::string>>(
         "--interface",
         [&f](const std::vector<std::string>& all) {
           for (const std::string& text : all) add_interface(f, text);
           check_contradictions(f);
         },
         "Addresses of this interface only; !NAME: not of this one; repeatable")
      ->type_name("NAME")
      ->allow_extra_args(false)
      ->check(check_interface);
}

std::string check_jobs(const std::string& text) {
  return text.find_first_not_of("0123456789") == std::string::npos && text.find_first_not_of('0') != std::string::npos
             ? ""
             : expected("a number above 0", text);
}

// CLI11 would read a number that begins with 0 as octal. A number that does not fit is no limit.
size_t jobs(const std::string& text) {
  size_t n = std::numeric_limits<size_t>::max();
  std::from_chars(text.data(), text.data() + text.size(), n);
  return n;
}

void add_exec(CLI::App& run, hook_options& e) {
  CLI::Option* exec =
      run.add_option("--exec", e.program, "Start this program, or those in this directory, when the addresses change")
          ->type_name("PROGRAM")
          ->check(check_program);
  add_filter(run, e.addresses);
  add_duration(run, "--hold", e.hold, "Hold the last addresses that long while there is none (default: 5m)")
      ->check(check_duration)
      ->needs(exec);
  add_duration(run, "--again", e.again, "Start it again after that time without a change (default: 1d; 0: never)")
      ->check(check_duration)
      ->needs(exec);
  add_duration(run, "--splay", e.splay, "Delay the first start by a random time up to this (default: 0)")
      ->check(check_duration)
      ->needs(exec);
  add_duration(run, "--exec-timeout", e.timeout, "Stop a program that runs longer (default: 30s)")
      ->check(check_positive)
      ->needs(exec);
  run.add_option_function<std::string>(
         "--jobs", [&e](const std::string& text) { e.jobs = jobs(text); },
         "Run at most that many programs at once (default: 8)")
      ->type_name("N")
      ->check(check_jobs)
      ->needs(exec);
  run.add_option("--state", e.state, "Remember in this directory what the program got (default: $STATE_DIRECTORY)")
      ->type_name("DIR")
      ->check(check_directory)
      ->needs(exec);
  run.add_flag("--dry-run", e.dry_run, "Print what would be started")->disable_flag_override()->needs(exec);
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, ',');) all.push_back(part);
  return all;
}

std::string check_events(const std::string& text) {
  std::string names;
  for (const std::string& name : event_names) names += (names.empty() ? "" : ", ") + name;
  for (const std::string& name : split(text + ','))
    if (!event_names.contains(name)) return expected("names of " + names + ", separated by commas", name);
  return "";
}

void add_run(CLI::App& app, options& o) {
  CLI::App* run = add_command(app, o, command::run, "run", "Run an instance for each file and print what it publishes");
  run->add_flag("--json", o.json, "Print JSON, one object per line")->disable_flag_override();
  run->add_option_function<std::string>(
         "--events",
         [&o](const std::string& text) {
           for (const std::string& name : split(text)) o.events.insert(name);
         },
         "Print these events only, for example value,hook")
      ->type_name("NAMES")
      ->check(check_events);
  run->add_option("--status", o.status, "Write the state to this file, as JSON")->type_name("FILE")->check(check_file);
  add_ends(run, o);
  add_exec(*run, o.hook);
}

// For a word that is taken for an option but names a file.
std::string hint_for(const std::vector<std::string>& words) {
  for (const std::string& word : words)
    if (word.starts_with('-') && std::filesystem::exists(word)) return "; write -- before " + word;
  return "";
}

// ---------------------------------------------------------------- errors

constexpr char sub_commands[] = "run, top, check, tags or info";

std::string explain_unknown(const std::string& word, const std::string& command) {
  if (!command.empty()) return word + ": not an option of " + command;
  if (word.starts_with('-')) return word + ": expected a sub-command first: " + sub_commands;
  return expected(std::string("a sub-command: ") + sub_commands, word);
}

// The value in --FLAG=VALUE.
std::string value_of_flag(const std::string& flag, const std::vector<std::string>& words) {
  for (const std::string& word : words)
    if (word.starts_with(flag + '=')) return word.substr(flag.size() + 1);
  return "";
}

// CLI11's errors of some types contain an option and a sentence, and no parts that could be read separately. Those of
// other types may contain the user's words, and with them any sentence.
std::optional<std::string> text_before(const std::string& text, std::string_view sentence) {
  const size_t at = text.find(sentence);
  return at == std::string::npos ? std::nullopt : std::optional(text.substr(0, at));
}

std::string explain_mismatch(const std::string& error, const std::vector<std::string>& words) {
  if (const auto flag = text_before(error, " was given a disallowed flag override"))
    return "--" + *flag + ": " + expected("no value", value_of_flag("--" + *flag, words));
  if (const auto option = text_before(error, ": At Most 1 required")) return *option + ": may be given only once";
  if (const auto option = text_before(error, ": 1 required ")) {
    const size_t type = option->size() + std::strlen(": 1 required ");
    return *option + ": expected a value after it: " + error.substr(type, error.find(' ', type) - type);
  }
  return error;
}

// The error is "--OPTION VERB --OTHER".
std::string explain_pair(const std::string& error, const std::string& text) {
  return error.substr(0, error.find(' ')) + ": " + text + error.substr(error.rfind(' '));
}

std::string explain(const CLI::App& app, const CLI::Error& e, const std::string& command,
                    const std::vector<std::string>& words) {
  if (dynamic_cast<const CLI::ExtrasError*>(&e))
    return explain_unknown(app.remaining(true).at(0), app.remaining().empty() ? command : "");
  if (dynamic_cast<const CLI::RequiredError*>(&e))
    return command.empty() ? std::string("expected a sub-command: ") + sub_commands
                           : "CONFIG: expected at least one configuration file";
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&e)) return explain_mismatch(e.what(), words);
  if (dynamic_cast<const CLI::RequiresError*>(&e)) return explain_pair(e.what(), "works only with");
  if (dynamic_cast<const CLI::ExcludesError*>(&e)) return explain_pair(e.what(), "cannot be combined with");
  return e.what();
}

std::string usage_error(const CLI::App* app, const CLI::Error& e, const std::vector<std::string>& words) {
  const auto parsed = app->get_subcommands();
  const std::string command = parsed.empty() ? "" : parsed[0]->get_name();
  return explain(*app, e, command, words) + hint_for(words) + " (dachost " + command + (command.empty() ? "" : " ") +
         "--help shows the usage)";
}

answer make_answer(const CLI::App& app, const CLI::ParseError& e) {
  std::ostringstream out;
  const int status = app.exit(e, out, out);
  std::string text = out.str();
  if (text.ends_with('\n')) text.pop_back();
  return {status == 0 ? 0 : wrong_usage, text};
}

// CLI11 treats `++` as the end of a sub-command, and so `--` after a file. With this prefix, words are other paths of
// the same files, and have no meaning for CLI11.
constexpr char disguise[] = "././";
constexpr char terminator[] = "++";
constexpr char its_path[] = "././++";

bool takes_value(const CLI::App& app, const std::string& word) {
  if (!word.starts_with('-')) return false;
  for (const CLI::App* c : app.get_subcommands({})) {
    const CLI::Option* o = c->get_option_no_throw(word);
    if (o && o->get_items_expected_max() > 0) return true;
  }
  return false;
}

// CLI11 reads the word after `--OPTION=` as the value, unless the empty value is a word too. Returns where `--` ends
// the options, or the number of words.
size_t separate_empty_values(const CLI::App& app, std::vector<std::string>& all) {
  size_t i = 0;
  for (; i < all.size() && all[i] != "--"; ++i) {
    if (all[i].ends_with('=') && takes_value(app, all[i].substr(0, all[i].size() - 1))) {
      all[i].pop_back();
      all.insert(all.begin() + static_cast<std::ptrdiff_t>(i) + 1, "");
    }
    if (takes_value(app, all[i])) ++i;  // skips the value
  }
  return std::min(i, all.size());
}

// Removes the word at `end` and makes all later ones files. One that comes before the sub-command remains, as an error.
void disguise_files(std::vector<std::string>& all, size_t end) {
  if (end == 0 || end == all.size()) return;
  for (size_t i = end + 1; i < all.size(); ++i)
    if (all[i].starts_with('-')) all[i].insert(0, disguise);
  all.erase(all.begin() + static_cast<std::ptrdiff_t>(end));
}

std::vector<std::string> words(const CLI::App& app, int argc, const char* const* argv) {
  std::vector<std::string> all(argv + 1, argv + std::max(argc, 1));
  disguise_files(all, separate_empty_values(app, all));
  std::replace(all.begin(), all.end(), std::string(terminator), std::string(its_path));
  std::reverse(all.begin(), all.end());  // CLI11 expects them in this order
  return all;
}

void restore(options& o) {
  for (std::string& file : o.files)
    if (file.starts_with(std::string(disguise) + '-')) file.erase(0, std::strlen(disguise));
  std::replace(o.files.begin(), o.files.end(), std::string(its_path), std::string(terminator));
  for (std::string* word : {&o.plugin, &o.hook.program, &o.hook.state, &o.status})
    if (*word == its_path) *word = terminator;
}

// The first of the directories that systemd's StateDirectory= creates.
std::string default_state() {
  const char* all = std::getenv("STATE_DIRECTORY");
  return all ? std::string(all, std::strcspn(all, ":")) : "";
}

}  // namespace

std::variant<options, answer> parse(int argc, const char* const* argv) {
  options o;
  CLI::App app("Reference host of the dac plug-ins", "dachost");
  app.set_version_flag("--version", "dachost " DAC_VERSION_TEXT);
  app.footer(footer());
  app.require_subcommand(0, 1);  // a missing one is reported below; reported here, it would hide an unknown word
  add_run(app, o);
  add_ends(add_command(app, o, command::top, "top", "Run an instance for each file and show them in a table"), o);
  add_command(app, o, command::check, "check", "Check whether the plug-in accepts each file");
  add_command(app, o, command::tags, "tags", "List the tags of each file's instance");
  add_command(app, o, command::info, "info", "Print the status document of each file's instance");
  const std::vector<std::string> all = words(app, argc, argv);
  app.failure_message([&](const CLI::App* a, const CLI::Error& e) { return usage_error(a, e, all); });
  try {
    app.parse(std::vector(all));
    if (app.get_subcommands().empty()) throw CLI::RequiredError("A sub-command");
  } catch (const CLI::ParseError& e) {
    return make_answer(app, e);
  }
  restore(o);
  if (o.hook.state.empty()) o.hook.state = default_state();
  o.hook.once = o.once;
  return o;
}
