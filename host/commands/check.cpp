// check, tags and info: create an instance for each file, print what it reports, and destroy it.
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "host/commands/commands.h"
#include "host/display/printer.h"
#include "host/display/text.h"
#include "host/instances/config_file.h"
#include "host/instances/diagnose.h"
#include "host/instances/fleet.h"
#include "host/report.h"

namespace {

using instance_printer = std::function<void(const std::string& file, std::unique_ptr<instance> i)>;
using refusal_printer = std::function<void(const std::string& what)>;

int for_each_instance(const plugin& p, const std::vector<std::string>& files, const instance_printer& print,
                      const refusal_printer& refuse) {
  const std::vector<std::string> names = instance_names(files);
  int status = 0;
  for (size_t k = 0; k < files.size(); ++k) {
    std::string reason;
    const auto note = [&reason](const report_item& what) {
      if (const auto* m = std::get_if<message>(&what); m && m->level == DAC_LEVEL_FAILURE) reason = m->text;
    };
    if (std::unique_ptr<instance> i = instance::make(p, names[k], files[k], note)) {
      print(files[k], std::move(i));
      continue;
    }
    refuse(diagnose(files[k], reason));
    status = 1;
  }
  return status;
}

}  // namespace

int check(const plugin& p, const std::vector<std::string>& files, output& out) {
  std::vector<std::unique_ptr<instance>> all;  // all at once, as in run: the plug-in limits their number
  const auto print = [&](const std::string& file, std::unique_ptr<instance> i) {
    const std::string hidden = hidden_hostname(file);
    for (const tag& t : i->tags())
      out.line(printable(file + ": ok, host name " + t.name + (hidden.empty() ? "" : ", but " + hidden)));
    all.push_back(std::move(i));
  };
  return for_each_instance(p, files, print, [&](const std::string& what) { out.line(printable(what)); });
}

int tags(const plugin& p, const std::vector<std::string>& files, output& out, output& err) {
  const auto print = [&](const std::string& file, const std::unique_ptr<instance>& i) {
    for (const tag& t : i->tags())
      out.line(tabbed({file, t.name, std::to_string(t.type), std::to_string(t.flag), t.text1, t.text2}));
  };
  return for_each_instance(p, files, print, [&](const std::string& what) { report(err, what); });
}

int info(const plugin& p, const std::vector<std::string>& files, output& out, output& err) {
  const auto print = [&](const std::string& /*file*/, const std::unique_ptr<instance>& i) {
    out.line(json_line(i->info()));
  };
  return for_each_instance(p, files, print, [&](const std::string& what) { report(err, what); });
}
