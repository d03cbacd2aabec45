// Replaces fopen for files that are opened with the mode of the plug-in ("rt"): opening and each read of a byte can
// fail.
#pragma once

#include "tests/support/nth.h"

namespace fake_files {

/// Files opened, and bytes read.
extern nth opens, reads;
/// Files open now.
int open();

}  // namespace fake_files
