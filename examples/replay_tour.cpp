// A short tour of the library's building blocks: it runs each one under a
// private target root and prints what it did.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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

int main() {
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

    std::string command = std::string("rm -rf ") + root;
    return std::system(command.c_str()) == 0 && thread.received == message ? 0 : 1;
}
