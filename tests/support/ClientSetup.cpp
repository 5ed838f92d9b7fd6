#include "tests/support/ClientSetup.h"

#include <unistd.h>

#include <cstdlib>

#include "libreplay/server/ReplayRuntimeOptions.h"
#include "tests/support/TestSupport.h"

namespace ReplayTest {

std::string PrepareReplayClient(const std::string& serverIP, const std::string& extraLines) {
    char directory[4096];
    const std::string path =
        std::string(getcwd(directory, sizeof directory) != nullptr ? directory : ".") + "/" +
        k_optionsFileName;
    std::string content = "serverIP:" + serverIP + ";\nexternalConnectWait:0;\n" + extraLines;
    if (!content.empty() && content.back() != '\n') {
        content += '\n';
    }
    WriteFile(path, content);
    setenv("ENABLE_REPLAY", "1", 1);
    ReplayRuntimeOptions::Get().OpenOptionsFile(path.c_str());
    return path;
}

}  // namespace ReplayTest
