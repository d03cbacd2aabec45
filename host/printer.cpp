#include "host/printer.h"

#include "host/json_printer.h"
#include "host/text_printer.h"

std::unique_ptr<printer> make_printer(bool json, output& out, output& err) {
  if (json) return std::make_unique<json_printer>(out, err);
  return std::make_unique<text_printer>(out);
}
