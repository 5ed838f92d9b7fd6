#include "tests/support/ClientSetup.h"

#include <cstdlib>
#include <filesystem>

#include "libreplay/server/ReplayRuntimeOptions.h"
#include "tests/support/TestSupport.h"

namespace ReplayTest {

std::string PrepareReplayClient(const std::string& serverIP, const std::string& extraLines) {
    const std::string path = std::filesystem::current_path().string() + "/" + k_optionsFileName;
    std::string content = "serverIP:" + serverIP + ";\nexternalConnectWait:0;\n" + extraLines;
    if (content.back() != '\n') {
        content += '\n';
    }
    WriteFile(path, content);
    setenv("ENABLE_REPLAY", "1", 1);
    ReplayRuntimeOptions::Get().OpenOptionsFile(path.c_str());
    return path;
}

}  // namespace ReplayTest
