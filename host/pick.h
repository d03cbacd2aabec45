// Which of the published addresses a name record is to have.
#pragma once

#include <string>

enum class pick { all, global, stable };

/// What is left of a published value, in its form: addresses separated by commas, or "null". Asks the kernel where the
/// value does not tell, and throws std::system_error when that fails.
std::string picked(pick which, const std::string& value);
