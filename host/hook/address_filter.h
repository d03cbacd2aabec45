// The machine's IPv6 addresses, and which of them a program gets.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/interface.h"

/// An address of an interface, as the kernel lists it.
struct kernel_address {
  std::string text;
  in6_addr address;
  std::string interface_name;
  unsigned char scope;  // RT_SCOPE_*
  unsigned flags;       // IFA_F_*
};

/// From one reading of the list to the next: flags change without a publication.
constexpr auto reading_interval = std::chrono::seconds(10);

class address_list : public interface {
 public:
  /// All addresses of all interfaces in the kernel's order. Throws std::system_error.
  virtual std::vector<kernel_address> all() = 0;
};

class kernel_address_list : public address_list {
 public:
  std::vector<kernel_address> all() override;
};

struct address_filter {
  enum class kind { all, global, stable };
  kind which = kind::all;
  std::vector<std::string> interfaces = {};  // only these interfaces; empty: all
  std::vector<std::string> excluded = {};    // none of these interfaces

  /// True if nothing is filtered, so that a program gets the published value.
  bool uses_published_value() const { return which == kind::all && interfaces.empty() && excluded.empty(); }
};

/// The kinds as the option --pick names them.
constexpr std::pair<std::string_view, address_filter::kind> filter_names[] = {{"all", address_filter::kind::all},
                                                                              {"global", address_filter::kind::global},
                                                                              {"stable", address_filter::kind::stable}};

/// The options that make this filter: "--pick stable --interface eth0".
std::string options_of(const address_filter& f);

/// The addresses that pass the filter on at least one interface, each once, in the kernel's order.
std::vector<kernel_address> choose(const address_filter& f, const std::vector<kernel_address>& list);

/// The addresses in the form of a published value: separated by commas, or "null".
std::string value_of(const std::vector<kernel_address>& addresses);

/// A published value without its last address if that may have been cut.
std::string without_cut_address(const std::string& published);
