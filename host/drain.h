// The last of the output.
#pragma once

#include "host/keeper.h"
#include "host/output.h"

/// Waits until both are written. Whatever their readers take their time for is waited for; once a signal has said to
/// stop, for a second, then the rest is dropped.
void drain(keeper& k, output& out, output& err);
