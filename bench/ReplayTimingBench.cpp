// Replay timing measurement: how close to its recorded moment each replayed
// item reaches the client's callback.
//
// A stand-in server streams records to three clients (one per child
// process, as there is one client per process) at 10 records a second, each
// record holding three items 33 ms apart, for the chosen duration. Each
// client's callback notes, per item, the moment it ran minus the item's
// moment on the client's clock (microseconds) and whether the items came in
// order; the children send their samples back through pipes and the program
// prints the distribution.
//
//   ReplayTimingBench [--seconds N]      (default 60)

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ReplayManager/ReplayClientInternal.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "support/TemporaryRoot.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kClients = 3;
constexpr int kRecordIntervalMs = 100;
constexpr int kItemsPerRecord = 3;
constexpr int kItemSpacingMs = 33;
// Records leave the server this long before their first item is due.
constexpr int kSendLeadMs = 50;
constexpr int64_t kLogStartMs = 1000000;
constexpr int64_t kClockWrapSeconds = 365LL * 24 * 3600;

struct Sample {
    int32_t index;
    int32_t outOfOrder;
    int64_t errorUs;
};

// The monotonic clock in microseconds, wrapped as the library's clock is.
int64_t NowMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (static_cast<int64_t>(now.tv_sec) % kClockWrapSeconds) * 1000000 + now.tv_nsec / 1000;
}

void FormatAndDrop(const char* format, va_list arguments) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
}

class MeasuringHandler : public ReplayClient::ReplayMessageHandlerBase {
  public:
    explicit MeasuringHandler(size_t expected) : ReplayMessageHandlerBase(false) {
        samples.reserve(expected);
    }
    int ReplayCallback(void* data, unsigned int, unsigned int clientTime) override {
        const int64_t nowUs = NowMicroseconds();
        // The client time is the item's moment in 32-bit milliseconds.
        const int32_t lateMs =
            static_cast<int32_t>(static_cast<uint32_t>(nowUs / 1000) - clientTime);
        const int index = std::atoi(static_cast<const char*>(data));
        samples.push_back({index, index < lastIndex ? 1 : 0, lateMs * 1000LL + nowUs % 1000});
        lastIndex = std::max(lastIndex, index);
        return 1;
    }
    std::vector<Sample> samples;
    int lastIndex = -1;
};

std::string Record(const std::string& name, unsigned int sequence, int64_t firstItemMs,
                   int firstIndex) {
    char text[512];
    unsigned int length = ReplayCore::WriteDataBlockHeader(text, sizeof text, '"', {0, firstItemMs},
                                                           name.c_str(), sequence);
    for (int item = 0; item < kItemsPerRecord; ++item) {
        if (item > 0) {
            length += ReplayCore::WriteItemSeparator(text + length, sizeof text - length,
                                                     {0, firstItemMs + item * kItemSpacingMs});
        }
        length += static_cast<unsigned int>(
            std::snprintf(text + length, sizeof text - length, "%d item", firstIndex + item));
    }
    unsigned int checksum = 0;
    const int full = ReplayCore::AppendChecksum(text, length, sizeof text, checksum);
    return std::string(text, static_cast<size_t>(full));
}

// One client: connects, replays until every item came or time is up, and
// writes its samples to `out`.
int RunClient(int index, int port, int records, int out) {
    g_clientName = "Timing" + std::to_string(index);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 4;
    }
    SetupLoggingHandlers("ReplayTimingBench", FormatAndDrop, FormatAndDrop, FormatAndDrop);
    ReplayRuntimeOptions::Get().SetIntegerValue(eNetworkingLatency, 0);
    const size_t expected = static_cast<size_t>(records) * kItemsPerRecord;
    static MeasuringHandler* handler = new MeasuringHandler(expected);
    g_replayMessageHandler.store(handler);
    if (g_replayClient.Open("127.0.0.1", port) < 1) {
        return 2;
    }
    clientReadThread.start();
    ReplayClient::SendClientMessage(nullptr, 0);

    const auto deadline =
        Clock::now() + std::chrono::milliseconds(records * kRecordIntervalMs + 10000);
    while (Clock::now() < deadline) {
        // Read without a lock only once the thread has no more to deliver.
        if (g_clientStateManager.GetState() == ReplayCore::eStateStopped) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    clientReadThread.RequestStop();
    const std::vector<Sample>& samples = handler->samples;
    const size_t bytes = samples.size() * sizeof(Sample);
    const char* cursor = reinterpret_cast<const char*>(samples.data());
    for (size_t written = 0; written < bytes;) {
        const ssize_t result = write(out, cursor + written, bytes - written);
        if (result <= 0) {
            return 3;
        }
        written += static_cast<size_t>(result);
    }
    return 0;
}

double Percentile(std::vector<int64_t> values, double fraction) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const size_t position =
        std::min(values.size() - 1, static_cast<size_t>(std::ceil(fraction * values.size())) - 1);
    return values[position] / 1000.0;
}

void Report(const char* label, const std::vector<Sample>& samples, size_t expected) {
    std::vector<int64_t> absolute;
    int64_t signedSum = 0;
    int outOfOrder = 0;
    int over3 = 0;
    int worstIndex = -1;
    int64_t worst = -1;
    for (const Sample& sample : samples) {
        over3 += std::llabs(sample.errorUs) > 3000 ? 1 : 0;
        if (std::llabs(sample.errorUs) > worst) {
            worst = std::llabs(sample.errorUs);
            worstIndex = sample.index;
        }
        absolute.push_back(std::llabs(sample.errorUs));
        signedSum += sample.errorUs;
        outOfOrder += sample.outOfOrder;
    }
    double absoluteSum = 0;
    for (int64_t value : absolute) {
        absoluteSum += static_cast<double>(value);
    }
    const double count = samples.empty() ? 1.0 : static_cast<double>(samples.size());
    std::printf(
        "%-8s items %5zu/%-5zu  mean|e| %6.3f ms  mean e %+7.3f ms  p50 %6.3f  p99 %6.3f  "
        "max %7.3f ms (item %d)  >3 ms: %d  out of order %d\n",
        label, samples.size(), expected, absoluteSum / count / 1000.0,
        static_cast<double>(signedSum) / count / 1000.0, Percentile(absolute, 0.50),
        Percentile(absolute, 0.99), static_cast<double>(std::max<int64_t>(worst, 0)) / 1000.0,
        worstIndex, over3, outOfOrder);
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 60;
    for (int arg = 1; arg < argc; ++arg) {
        if (std::strcmp(argv[arg], "--seconds") == 0 && arg + 1 < argc) {
            seconds = std::max(1, std::atoi(argv[++arg]));
        }
    }
    const int records = seconds * 1000 / kRecordIntervalMs;

    // The children's file logs and output go to a private target root.
    const ReplaySupport::TemporaryRoot root("replay-timing", {"tmp"});
    if (!root.Valid()) {
        return 1;
    }
    setenv("REPLAY_TARGET_ROOT", root.Path().c_str(), 1);

    const int server = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t addressLength = sizeof address;
    if (server < 0 || bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(server, reinterpret_cast<sockaddr*>(&address), &addressLength) != 0) {
        return 1;
    }
    const int port = ntohs(address.sin_port);

    // Children first: no thread exists yet in this process.
    pid_t children[kClients];
    int pipes[kClients];
    for (int client = 0; client < kClients; ++client) {
        int ends[2];
        if (pipe(ends) != 0) {
            return 1;
        }
        children[client] = fork();
        if (children[client] == 0) {
            close(ends[0]);
            close(server);
            _exit(RunClient(client, port, records, ends[1]));
        }
        close(ends[1]);
        pipes[client] = ends[0];
    }

    // Learn each client's address from its connect record.
    sockaddr_in clients[kClients]{};
    int known = 0;
    const auto helloDeadline = Clock::now() + std::chrono::seconds(10);
    timeval pollInterval{0, 100000};
    setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, &pollInterval, sizeof pollInterval);
    while (known < kClients && Clock::now() < helloDeadline) {
        char buffer[2048];
        sockaddr_in sender{};
        socklen_t senderLength = sizeof sender;
        const ssize_t received = recvfrom(server, buffer, sizeof buffer - 1, 0,
                                          reinterpret_cast<sockaddr*>(&sender), &senderLength);
        if (received <= 0) {
            continue;
        }
        buffer[received] = '\0';
        const char* name = std::strstr(buffer, ":Timing");
        if (name != nullptr) {
            const int client = name[7] - '0';
            if (client >= 0 && client < kClients && clients[client].sin_port == 0) {
                clients[client] = sender;
                ++known;
            }
        }
    }
    if (known < kClients) {
        std::fprintf(stderr, "only %d of %d clients connected\n", known, kClients);
        return 1;
    }

    // Each client's clock starts at the log time when its replay command
    // arrives; each record is sent kSendLeadMs before its first item.
    struct Pending {
        Clock::time_point sendAt;
        int client;
        std::string bytes;
    };
    std::vector<Pending> schedule;
    const std::string start =
        "#replay l=" + ReplayCore::MSTime::MSTimeStruct(0, kLogStartMs).ToString() + ";";
    Clock::time_point startedAt[kClients];
    for (int client = 0; client < kClients; ++client) {
        sendto(server, start.data(), start.size(), 0, reinterpret_cast<sockaddr*>(&clients[client]),
               sizeof clients[client]);
        startedAt[client] = Clock::now();
    }
    for (int record = 0; record < records; ++record) {
        for (int client = 0; client < kClients; ++client) {
            // Staggered, so that the clients' items do not all fall together.
            const int offsetMs = record * kRecordIntervalMs + 200 + client * 7;
            schedule.push_back(
                {startedAt[client] + std::chrono::milliseconds(offsetMs - kSendLeadMs), client,
                 Record("Timing" + std::to_string(client), static_cast<unsigned int>(record + 1),
                        kLogStartMs + offsetMs, record * kItemsPerRecord)});
        }
    }
    std::sort(schedule.begin(), schedule.end(),
              [](const Pending& a, const Pending& b) { return a.sendAt < b.sendAt; });
    for (const Pending& pending : schedule) {
        std::this_thread::sleep_until(pending.sendAt);
        sendto(server, pending.bytes.data(), pending.bytes.size(), 0,
               reinterpret_cast<sockaddr*>(&clients[pending.client]),
               sizeof clients[pending.client]);
        // The clients' status reports are read and dropped.
        char drain[2048];
        while (recv(server, drain, sizeof drain, MSG_DONTWAIT) > 0) {
        }
    }
    // Let the last items fall due, then end each replay.
    std::this_thread::sleep_for(std::chrono::milliseconds(kRecordIntervalMs * 3));
    for (int client = 0; client < kClients; ++client) {
        sendto(server, "#stop", 5, 0, reinterpret_cast<sockaddr*>(&clients[client]),
               sizeof clients[client]);
    }

    std::vector<Sample> all;
    const size_t expected = static_cast<size_t>(records) * kItemsPerRecord;
    std::printf(
        "Replay timing: %d clients, %d s, %d records/s of %d items; error = callback "
        "moment - item moment\n",
        kClients, seconds, 1000 / kRecordIntervalMs, kItemsPerRecord);
    int failures = 0;
    for (int client = 0; client < kClients; ++client) {
        std::vector<Sample> samples;
        Sample sample{};
        while (read(pipes[client], &sample, sizeof sample) == static_cast<ssize_t>(sizeof sample)) {
            samples.push_back(sample);
        }
        int status = 0;
        waitpid(children[client], &status, 0);
        failures += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
        const std::string label = "client" + std::to_string(client);
        Report(label.c_str(), samples, expected);
        all.insert(all.end(), samples.begin(), samples.end());
    }
    Report("all", all, expected * kClients);
    std::printf("targets: mean|e| <= 1.5 ms, p99 <= 3 ms, max <= 10 ms, none out of order\n");
    close(server);
    return failures == 0 ? 0 : 1;
}
