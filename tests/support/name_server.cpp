#include "tests/support/name_server.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "tests/support/texts.h"

namespace {

std::string key_with(const std::string& secret) {
  return "key dachost { algorithm hmac-sha256; secret \"" + secret + "\"; };\n";
}

}  // namespace

// Security modules confine the program by its path, to folders of the system: a copy may read what is here.
name_server::name_server() {
  std::filesystem::copy("/usr/sbin/named", _dir.path("named"));
  const std::string key = key_with("c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0");
  _dir.file(key, "key");
  _dir.file(key_with("d3JvbmcgIHdyb25nICB3cm9uZyAgd3Jv"), "wrong_key");
  _dir.file("$TTL 60\n@ SOA ns hostmaster 1 3600 600 86400 60\n@ NS ns\nns A 127.0.0.1\n", "zone");
  _dir.file(key + "options { directory \"" + _dir.path("") + "\"; listen-on port " + port +
                " { 127.0.0.1; }; listen-on-v6 { none; }; pid-file none; session-keyfile none; recursion no;"
                " dnssec-validation no; empty-zones-enable no; notify no; };\ncontrols { };\nzone \"" +
                zone + "\" { type primary; file \"zone\"; update-policy { grant dachost zonesub AAAA; }; };\n",
            "named.conf");
}

void name_server::start() {
  std::filesystem::remove(_dir.path("log"));
  _program = std::make_unique<process>(std::vector<std::string>{_dir.path("named"), "-f", "-n", "1", "-L",
                                                                _dir.path("log"), "-c", _dir.path("named.conf")});
  if (!eventually([this] { return read_file(_dir.path("log")).find(" running\n") != std::string::npos; }))
    throw std::runtime_error("no name server: " + read_file(_dir.path("log")));
}

void name_server::stop() {
  _program->signal(SIGTERM);
  _program->end();
  _program = nullptr;
}

std::vector<std::string> name_server::ask(const std::string& type, const std::string& name) const {
  process dig({"dig", "+short", "+time=2", "@127.0.0.1", "-p", port, type, name});
  return lines(dig.end().out);
}

std::vector<std::string> name_server::addresses(const std::string& name) const {
  std::vector<std::string> found = ask("AAAA", name);
  std::sort(found.begin(), found.end());
  return found;
}

bool name_server::gets(const std::string& name, const std::vector<std::string>& wanted) const {
  return eventually([&] { return addresses(name) == wanted; });
}

unsigned long name_server::serial() const {
  const std::string soa = ask("SOA", zone).at(0);
  std::istringstream fields(soa);
  std::string server, mailbox;
  unsigned long n = 0;
  fields >> server >> mailbox >> n;
  return n;
}
