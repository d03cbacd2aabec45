// check, tags and info: make an instance of each file, ask it, let it go.
#include <functional>
#include <memory>

#include "host/commands.h"
#include "host/instance.h"
#include "host/names.h"
#include "host/printer.h"
#include "host/refusal.h"
#include "host/text.h"

namespace {

using teller = std::function<void(const std::string& file, const instance& i)>;

int for_each_instance(const plugin& p, const std::vector<std::string>& files, const teller& tell, output& refusals,
                      const std::string& prefix) {
  event_queue unread;
  const std::vector<std::string> names = instance_names(files);
  int status = 0;
  for (size_t k = 0; k < files.size(); ++k) {
    std::string reason;
    const std::unique_ptr<instance> i = instance::make(p, {unread, k}, names[k], files[k], reason);
    if (i) {
      tell(files[k], *i);
      continue;
    }
    refusals.line(prefix + printable(refusal(files[k], reason.empty() ? "refused without a reason" : reason)));
    status = 1;
  }
  return status;
}

}  // namespace

int check(const plugin& p, const std::vector<std::string>& files, output& out) {
  const auto tell = [&](const std::string& file, const instance& i) {
    for (const tag& t : i.tags()) out.line(printable(file + ": ok, host name " + t.name));
  };
  return for_each_instance(p, files, tell, out, "");
}

int tags(const plugin& p, const std::vector<std::string>& files, output& out, output& err) {
  const auto tell = [&](const std::string& file, const instance& i) {
    for (const tag& t : i.tags())
      out.line(tabbed({file, t.name, std::to_string(t.type), std::to_string(t.flag), t.text1, t.text2}));
  };
  return for_each_instance(p, files, tell, err, "dachost: ");
}

int info(const plugin& p, const std::vector<std::string>& files, output& out, output& err) {
  const auto tell = [&](const std::string& /*file*/, const instance& i) { out.line(json_line(i.info())); };
  return for_each_instance(p, files, tell, err, "dachost: ");
}
