// Where the plug-in is when nobody says.
#pragma once

#include <string>

/// The first that is there of: beside this executable, ../lib/TRIPLET/dac, ../lib/dac and .. from its directory; the
/// last is where a build has it. Otherwise the bare name, which the dynamic loader looks for.
std::string find_plugin();
