#ifndef TESTS_SUPPORT_CLIENTSETUP_H
#define TESTS_SUPPORT_CLIENTSETUP_H

// Prepares a test's working directory for a replay client.

#include <string>

namespace ReplayTest {

// Writes "ReplayConfig.txt" into the working directory (the TargetRootTest's
// work directory) with serverIP set to `serverIP` and externalConnectWait set
// to 0, plus `extraLines` ("keyword:value;" lines) as given; loads it into
// the process's options and sets ENABLE_REPLAY. Without the zero wait every
// address other than "127.0.0.1" would be held back for 20 s after start.
// Call it before the test starts threads (it changes the environment).
// Returns the file's path.
std::string PrepareReplayClient(const std::string& serverIP, const std::string& extraLines = "");

}  // namespace ReplayTest

#endif
