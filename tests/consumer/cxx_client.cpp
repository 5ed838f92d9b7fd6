// Records one text item and waits until the replay hands it back.
#include <libreplay/ReplayClient.h>
#include <libreplay/ReplayVersion.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {
const char kItem[] = "position 48.1 11.5";
volatile int g_replayed = 0;

int OnReplay(void* data, unsigned int nBytes, unsigned int) {
    if (nBytes == sizeof kItem - 1 && std::memcmp(data, kItem, nBytes) == 0) {
        g_replayed = 1;
    }
    return 1;
}
}  // namespace

int main() {
    std::printf("cxx_client against libreplay %s\n", LIBREPLAY_VERSION);
    ReplayClient::InitializeReplayClient("cxxclient", OnReplay, nullptr, kDataTypeAsciiText);
    bool sent = false;
    for (int i = 0; i < 600 && g_replayed == 0; ++i) {
        if (!sent && ReplayClient::GetReplayState() == ReplayCore::eStateRecord) {
            sent =
                ReplayClient::SendClientData(kItem, sizeof kItem - 1, true, kDataTypeAsciiText) > 0;
            if (sent) {
                std::printf("sent\n");
                std::fflush(stdout);
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::printf(g_replayed != 0 ? "replayed\n" : "not replayed\n");
    std::fflush(stdout);
    ReplayClient::ShutDownClient(0, nullptr);
    return g_replayed != 0 ? 0 : 1;
}
