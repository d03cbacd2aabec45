// The sub-commands. Each returns the exit status: 0 on success, 1 on failure. run and top return EX_CONFIG (78) if they
// have started nothing because a file was refused.
#pragma once

#include <string>
#include <vector>

#include "host/command_line.h"
#include "host/hook/hook_runner.h"
#include "host/instances/plugin.h"
#include "host/instances/supervisor.h"
#include "host/loop/output.h"
#include "host/systemd.h"

int run(const hook_runner::environment& e, service_manager& m, const plugin& p, const options& o, output& out,
        output& err);
int top(event_loop& l, const plugin& p, const options& o, output& out, output& err);
int check(const plugin& p, const std::vector<std::string>& files, output& out);
int tags(const plugin& p, const std::vector<std::string>& files, output& out, output& err);
int info(const plugin& p, const std::vector<std::string>& files, output& out, output& err);

/// Ends run and top: reports failures, writes the pending output, and returns the exit status. `is_stopped` is the
/// result of supervisor::stop().
int finish(event_loop& l, const supervisor& s, bool is_stopped, output& out, output& err);
