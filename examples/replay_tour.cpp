// A short tour of the library's building blocks: it runs each one under a
// private target root and prints what it did.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "ReplayManager/FileLogger.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayVersion.h"
#include "reference/src/operating_system.h"
#include "reference/src/target_root.h"

namespace {

class EchoThread : public CThread {
  public:
    explicit EchoThread(CPipe& pipe) : CThread(0, 10, "echo"), m_pipe(pipe) {}

    std::string received;

  protected:
    void execute() override {
        char buffer[64] = {};
        const int length = m_pipe.read(buffer, sizeof buffer - 1);
        if (length > 0) {
            received.assign(buffer, static_cast<size_t>(length));
        }
    }

  private:
    CPipe& m_pipe;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("replay_tour %s\n", LIBREPLAY_VERSION);
        return 0;
    }
    if (argc > 1) {
        std::fprintf(stderr, "usage: replay_tour [--version]\n");
        return 2;
    }
    char rootTemplate[] = "/tmp/replay-tour-XXXXXX";
    const char* root = mkdtemp(rootTemplate);
    if (root == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    ReplayPlatform::SetTargetRoot(root);
    std::printf("target root: %s\n", root);
    std::printf("  /tmp/ReplayLog.txt resolves to %s\n",
                ReplayPlatform::TargetPath("/tmp/ReplayLog.txt").c_str());

    CPipe pipe;
    if (!pipe.open(true, false)) {
        std::printf("pipe: failed\n");
        return 1;
    }
    EchoThread thread(pipe);
    thread.start();
    const char message[] = "one record through the pipe";
    pipe.write(message, sizeof message - 1);
    thread.join();
    std::printf("thread read from pipe: \"%s\"\n", thread.received.c_str());

    // The millisecond clock and the tenth of a second it falls in.
    const ReplayCore::MSTime::MSTimeStruct now = ReplayCore::MSTime::CurrentTimeMS();
    std::printf("clock: %s s, time slot %u\n", now.ToString().c_str(),
                ReplayCore::GetTimeSlotFromTime(now));

    // A state command with arguments, as the server sends it, and back.
    using ReplayCore::ReplayStateManager;
    const std::string command = ReplayStateManager::GetCommandFromState(ReplayCore::eStateReplay,
                                                                        "s=3;l=" + now.ToString());
    ReplayStateManager::CommandArgsParser arguments;
    const ReplayCore::ReplayState state =
        ReplayStateManager::GetStateFromCommand(command, arguments);
    std::string slot;
    std::string logTime;
    const bool parsed = arguments.Get('s', slot) && arguments.Get('l', logTime);
    std::printf("command \"%s\" parses as state %s, s=%s, l=%s\n", command.c_str(),
                ReplayStateManager::GetReplayStateName(state).c_str(), slot.c_str(),
                logTime.c_str());

    // One line of the diagnostic log, read back from the private root.
    mkdir((std::string(root) + "/tmp").c_str(), 0755);
    ReplayCore::FileLogger::LogToFile(ReplayCore::FileLogger::eSeverityInfo,
                                      "replay tour: state %s",
                                      ReplayStateManager::GetReplayStateName(state).c_str());
    std::ifstream logFile(ReplayPlatform::TargetPath(ReplayCore::FileLogger::kLogFileLocation));
    std::stringstream logText;
    logText << logFile.rdbuf();
    std::printf("ReplayLog.txt holds: \"%s\"\n",
                ReplayCore::FileLogger::FormatDebugText(logText.str().c_str(), 128).c_str());

    const bool ok = thread.received == message && parsed && state == ReplayCore::eStateReplay &&
                    logText.str().find("replay tour: state Replay") != std::string::npos;
    const std::string removeRoot = std::string("rm -rf ") + root;
    return std::system(removeRoot.c_str()) == 0 && ok ? 0 : 1;
}
