#include "host/instances/fleet.h"

#include <filesystem>
#include <map>
#include <set>
#include <utility>

namespace {

// "dir/" has no stem, and a plug-in refuses an instance without a name.
std::string stem(const std::string& file) {
  const std::string s = std::filesystem::path(file).stem();
  return s.empty() ? file : s;
}

std::string take_free(const std::string& name, std::set<std::string>& taken) {
  std::string free = name;
  for (int n = 2; !taken.insert(free).second; ++n) free = name + '#' + std::to_string(n);
  return free;
}

}  // namespace

fleet::fleet(const std::vector<std::string>& files) {
  const std::vector<std::string> names = instance_names(files);
  for (size_t i = 0; i < files.size(); ++i) _slots.push_back({files[i], names[i], nullptr});
}

std::unique_ptr<instance> fleet::replace(size_t i, std::unique_ptr<instance> next) {
  return std::exchange(_slots[i].now, std::move(next));
}

std::vector<std::string> instance_names(const std::vector<std::string>& files) {
  std::map<std::string, int> sharing;
  for (const std::string& file : files) ++sharing[stem(file)];
  std::set<std::string> taken;
  std::vector<std::string> names;
  names.reserve(files.size());
  for (const std::string& file : files) {
    const std::string s = stem(file);
    names.push_back(take_free(sharing[s] == 1 ? s : file, taken));
  }
  return names;
}
