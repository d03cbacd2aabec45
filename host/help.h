// What stands below the options in the help.
#pragma once

#include <string>

#include "host/options.h"

/// Examples of a sub-command, and its exit statuses.
std::string footer_of(command what);
/// The same of the whole.
std::string footer();
