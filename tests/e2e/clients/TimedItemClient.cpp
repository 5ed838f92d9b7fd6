// timed_item_client NAME PLAN JOURNAL (see TimedItems.h): once recording,
// hands over PLAN's items and journals each on the library's clock; then an
// item of the other type sends the block in progress. Ends on SIGTERM.

#include <signal.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "libreplay/ReplayClient.h"
#include "libreplay/ReplayCore.h"
#include "tests/e2e/clients/TimedItems.h"

namespace {

std::atomic<bool> g_stop{false};

void OnSignal(int) {
    g_stop.store(true);
}

int IgnoreReplay(void*, unsigned int, unsigned int) {
    return 1;
}

int64_t ClientClockMs() {
    return ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    ReplayClient::InitializeReplayClient(argv[1], IgnoreReplay, nullptr, kDataTypeAsciiText);
    while (!g_stop.load() && ReplayClient::GetReplayState() != ReplayCore::eStateRecord) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    std::ifstream plan(argv[2]);
    std::ofstream journal(argv[3]);
    long pauseMs = 0;
    char type = 't';
    size_t size = 0;
    for (size_t index = 0; !g_stop.load() && plan >> pauseMs >> type >> size; ++index) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        const std::string item = TimedItems::ItemBytes(index, type, size);
        const int64_t before = ClientClockMs();
        const int result =
            ReplayClient::SendClientData(item.data(), static_cast<unsigned int>(item.size()), false,
                                         type == 't' ? kDataTypeAsciiText : kDataTypeBinary);
        const int64_t after = ClientClockMs();
        journal << index << ' ' << before << ' ' << after << ' ' << result << std::endl;
    }
    const char flush = 0;
    ReplayClient::SendClientData(&flush, 1, false,
                                 type == 't' ? kDataTypeBinary : kDataTypeAsciiText);
    journal << "done" << std::endl;
    while (!g_stop.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ReplayClient::ShutDownClient(0, nullptr);
    return 0;
}
