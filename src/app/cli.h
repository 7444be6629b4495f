#pragma once

#include <string>
#include <vector>

namespace zq {

// The whole of the entry function after the command line was read: the option scan, the log,
// the settings, then one command. Returns the process exit code.
int run_cli(const std::vector<std::wstring>& args);

// The text printed for a command line that is not understood.
extern const char* const kUsageText;

}  // namespace zq
