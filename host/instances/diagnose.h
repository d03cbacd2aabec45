// Why a file was refused, and what to do about it.
#pragma once

#include <string>

/// One line that names the file once: the plug-in's reason, which may be empty, followed by a remedy if the host
/// knows one.
std::string diagnose(const std::string& file, const std::string& reason);
