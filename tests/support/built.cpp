#include "tests/support/built.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>

namespace {

std::map<std::string, std::string> read_properties() {
  const char* build = std::getenv("IP6DNS_BUILD");
  if (build == nullptr) throw std::runtime_error("IP6DNS_BUILD is not set: it names the build to test");
  const std::string path = std::string(build) + "/tests/built";
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + " cannot be read: is IP6DNS_BUILD a build with tests?");
  std::map<std::string, std::string> all;
  for (std::string line; std::getline(in, line);) {
    const size_t at = line.find('=');
    all[line.substr(0, at)] = line.substr(at + 1);
  }
  return all;
}

}  // namespace

const std::string& built(const std::string& name) {
  static const std::map<std::string, std::string> all = read_properties();
  const auto found = all.find(name);
  if (found == all.end()) throw std::runtime_error("the build has no property " + name);
  return found->second;
}
