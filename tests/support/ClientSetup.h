#ifndef TESTS_SUPPORT_CLIENTSETUP_H
#define TESTS_SUPPORT_CLIENTSETUP_H

#include <string>

namespace ReplayTest {

// Writes and loads the working directory's options file for `serverIP` with
// externalConnectWait 0 (else any address but 127.0.0.1 waits 20 s) and
// `extraLines`, and sets ENABLE_REPLAY: call it before any thread starts.
// Returns the file's path.
std::string PrepareReplayClient(const std::string& serverIP, const std::string& extraLines = "");

}  // namespace ReplayTest

#endif
