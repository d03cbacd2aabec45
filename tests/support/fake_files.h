// fopen replaced for files that are opened as the plug-in opens them ("rt"): opening and each read of a byte can fail.
#pragma once

#include "tests/support/nth.h"

namespace fake_files {

/// Files opened, and bytes read.
extern nth opens, reads;
/// Files open now.
int open();

}  // namespace fake_files
