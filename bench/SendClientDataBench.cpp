// Cost of recording one 64-byte item with SendClientData while a loopback
// receiver drains the datagrams, beside the baseline of sending each item as
// a datagram of its own.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "ReplayManager/ReplayClientInternal.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "libreplay/server/TargetRoot.h"

namespace {

// A UDP socket on port 4400 of a loopback address of its own, read by a
// thread that throws every datagram away.
class Receiver {
  public:
    Receiver() {
        m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int size = 4 << 20;
        setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(4400);
        for (int last = 2; last < 250; ++last) {
            m_address = "127.0.44." + std::to_string(last);
            inet_pton(AF_INET, m_address.c_str(), &address.sin_addr);
            if (bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
                break;
            }
        }
        timeval timeout{0, 100000};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        m_thread = std::thread([this] {
            char buffer[4096];
            while (!m_stop.load()) {
                (void)recv(m_socket, buffer, sizeof buffer, 0);
            }
        });
    }
    ~Receiver() {
        m_stop = true;
        m_thread.join();
        close(m_socket);
    }
    const std::string& Address() const { return m_address; }

  private:
    int m_socket = -1;
    std::string m_address;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

Receiver& TheReceiver() {
    static Receiver receiver;
    return receiver;
}

// Initialises the process's client against the receiver once and starts
// recording.
void StartRecording() {
    static const bool started = [] {
        char root[] = "/tmp/replay-bench-XXXXXX";
        const std::string directory = mkdtemp(root);
        ReplayPlatform::SetTargetRoot(directory);
        mkdir((directory + "/tmp").c_str(), 0700);  // the file log
        setenv("ENABLE_REPLAY", "1", 1);
        ReplayRuntimeOptions& options = ReplayRuntimeOptions::Get();
        options.SetStringValue(eServerIP, TheReceiver().Address());
        options.SetIntegerValue(eExternalConnectWait, 0);
        ReplayClient::InitializeReplayClient(
            "Bench", [](void*, unsigned int, unsigned int) { return 0; }, nullptr,
            kDataTypeAsciiText);
        g_clientStateManager.SetClientState(ReplayCore::eStateRecord, nullptr);
        return true;
    }();
    (void)started;
}

void BM_SendClientData(benchmark::State& state, unsigned int dataType) {
    StartRecording();
    const std::string item(64, dataType == kDataTypeBinary ? '\x9c' : 't');
    for (auto _ : state) {
        benchmark::DoNotOptimize(ReplayClient::SendClientData(item.data(), 64, false, dataType));
    }
    if (ReplayClient::GetReplayState() != ReplayCore::eStateRecord) {
        state.SkipWithError("client stopped recording");
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_DatagramPerItem(benchmark::State& state) {
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(4400);
    inet_pton(AF_INET, TheReceiver().Address().c_str(), &to.sin_addr);
    connect(sender, reinterpret_cast<sockaddr*>(&to), sizeof to);
    const std::string item(64, 't');
    for (auto _ : state) {
        benchmark::DoNotOptimize(send(sender, item.data(), item.size(), MSG_NOSIGNAL));
    }
    close(sender);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_DatagramPerItem)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_CAPTURE(BM_SendClientData, Text64, kDataTypeAsciiText)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK_CAPTURE(BM_SendClientData, Binary64, kDataTypeBinary)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
