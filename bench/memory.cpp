// Memory of the plug-in and its instances. Each figure comes from a separate process.
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/versus.h"

namespace {

const bool quick = std::getenv("BENCH_QUICK") != nullptr;
const size_t rounds = quick ? 1 : 5;

double probe(const std::string& arguments) {
  const std::string command = PROBE " " + arguments;
  std::FILE* f = popen(command.c_str(), "r");
  double bytes;
  if (!f || std::fscanf(f, "%lf", &bytes) != 1 || pclose(f) != 0) throw std::runtime_error(command + " fails");
  return bytes;
}

void compare(const std::string& path, const std::string& ours, const std::string& rival, const std::string& theirs) {
  std::vector<double> a(rounds), b(rounds);
  for (size_t i = 0; i < rounds; ++i) {
    a[i] = probe(ours);
    b[i] = probe(theirs);
  }
  add_row(path, rival, "B", a, b);
}

// Compares with a fixed figure.
void against(const std::string& path, const std::string& ours, const std::string& what, double figure) {
  std::vector<double> a(rounds);
  for (double& bytes : a) bytes = probe(ours);
  add_row(path, what, "B", a, std::vector<double>(rounds, figure));
}

}  // namespace

void enter() {
  against("memory at load", "load", "32 kB", 32 * 1024);
  against("memory of a created instance, of 1024", "create 1024", "2 kB", 2 * 1024);
  for (const char* count : {"1024", "1", "4", "16", "64", "256"}) {
    compare(std::string("memory of a running instance, of ") + count, std::string("run ") + count,
            "bare thread with one message", std::string("bare ") + count);
    if (quick) break;
  }
  against("memory of a 24-byte block, of 1000000", "blocks pools", "header and class", 40);
  for (const char* rival : {"glibc tuned", "jemalloc", "mimalloc", "tcmalloc"})
    compare("memory of a 24-byte block, of 1000000", "blocks pools", rival, std::string("blocks '") + rival + "'");
}
