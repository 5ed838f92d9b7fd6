#ifndef REFERENCE_SRC_CHILD_PROCESS_H
#define REFERENCE_SRC_CHILD_PROCESS_H

// Runs a helper program found on PATH and collects what it prints.

#include <chrono>
#include <string>
#include <vector>

namespace ReplayPlatform {

// Starts `arguments[0]` (searched on PATH) with the rest as its arguments,
// standard input and error on /dev/null, its own process group and no blocked
// signals, and appends its standard output to `output`. Returns its wait
// status, or -1 when it could not be started or did not end within `timeout`
// (it is then killed with its process group).
int CurrentProcessId();

int RunProgram(const std::vector<std::string>& arguments, std::chrono::milliseconds timeout,
               std::string& output);

}  // namespace ReplayPlatform

#endif
