// Which of the published addresses a hook gets.
#pragma once

#include <set>
#include <string>

#include "host/interface.h"

enum class address_filter { all, global, stable };

/// What the kernel knows about this machine's addresses.
class address_list : public interface {
 public:
  /// The addresses that at least one interface has neither as temporary nor as deprecated. Throws std::system_error.
  virtual std::set<std::string> stable() = 0;
};

class kernel_address_list : public address_list {
 public:
  std::set<std::string> stable() override;
};

/// What the filter leaves of a published value, in its form: addresses separated by commas, or "null". Throws what
/// address_list::stable() throws.
std::string filtered(address_filter f, const std::string& value, address_list& kernel);
