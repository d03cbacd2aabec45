// The sub-commands.
#pragma once

#include <string>
#include <vector>

#include "host/options.h"
#include "host/output.h"
#include "host/plugin.h"

/// Each returns the exit status: 0, or 1 when a file was refused.
int run(const plugin& p, const options& o, output& out, output& err);
int top(const plugin& p, const options& o, output& out, output& err);
int check(const plugin& p, const std::vector<std::string>& files, output& out);
int tags(const plugin& p, const std::vector<std::string>& files, output& out, output& err);
int info(const plugin& p, const std::vector<std::string>& files, output& out, output& err);
