// demo_client: a simulated navigation component. While the server records,
// it sends a position text at 10 Hz and a binary sensor frame at 50 Hz (and,
// when asked, a status text) and keeps a journal of what it sent; while the
// server replays, it checks that what comes back is what it sent (byte for
// byte, in order) and measures when each item arrives against when it was
// recorded.
//
//   demo_client NAME JOURNAL [SECONDS] [--position-hz HZ] [--frame-hz HZ]
//               [--frame-bytes N] [--status-hz HZ] [--received FILE]
//               [--report-ms MS]
//
// A rate of 0 turns a stream off. Runs for SECONDS (default: until SIGINT or
// SIGTERM), then prints one summary line and, with --received, writes every
// replayed item ("<monotonic ms> <hex>" a line) to FILE; exit status 0 unless
// a replayed item did not match. With DEMO_CLIENT_ITEMS set to a path, it
// also writes one line per replayed item there: the item's index in the
// journal (-1 if it is not there), its recorded time in ms, the callback
// moment in us on the monotonic clock, and the callback moment minus the
// item's time on the client's own clock in ms. With --report-ms, while the
// server replays it reports every MS milliseconds, as its status message,
// how far that last figure of each item so far is from the first item's
// ("timing ms: mean M p99 P max X items N"), for the server's web page.

#include <algorithm>
#include <atomic>
#include <csignal>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libreplay/ReplayClient.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayVersion.h"
#include "support/DemoJournal.h"
#include "support/HexText.h"

namespace {

const char kInitPrefix[] = "INIT:";

std::atomic<bool> g_stop{false};

struct Received {
    std::string bytes;
    int64_t momentMs;  // monotonic, at the callback
    int64_t momentUs;
    int32_t clockLeadMs;  // the client's clock at the callback minus the item's time on it
};

std::mutex g_receivedMutex;
std::vector<Received> g_received;

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int OnReplay(void* data, unsigned int nBytes, unsigned int clientTime) {
    const int64_t momentUs = NowUs();
    const int64_t moment = momentUs / 1000;
    // The item's time on the client's clock comes as its low 32 bits.
    const int32_t clockLead = static_cast<int32_t>(
        static_cast<uint32_t>(ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds) - clientTime);
    std::string bytes(static_cast<const char*>(data), nBytes);
    if (bytes.compare(0, sizeof kInitPrefix - 1, kInitPrefix) == 0) {
        return 1;  // the initialisation record, not part of the journal
    }
    std::lock_guard<std::mutex> lock(g_receivedMutex);
    g_received.push_back({std::move(bytes), moment, momentUs, clockLead});
    return 1;
}

void OnSignal(int) {
    g_stop.store(true);
}

using ReplaySupport::JournalItem;

// Position text: changes every item, so a reordered or repeated item shows.
std::string PositionText(unsigned int count) {
    char text[96];
    std::snprintf(text, sizeof text, "POS %u lat=%.6f lon=%.6f speed=%.1f", count,
                  48.137 + count * 1e-5, 11.575 + count * 2e-5, 13.5 + std::sin(count * 0.1));
    return text;
}

// Status text at a low rate, as a component reports its health.
std::string StatusText(unsigned int count) {
    char text[96];
    std::snprintf(text, sizeof text, "STS %u uptime=%u state=ok", count, count);
    return text;
}

// A sensor frame with every byte value, the separator and line ends among
// them, so the binary path is exercised for real. At least 8 bytes: the
// count sits at byte 4 so that every frame differs.
std::string SensorFrame(unsigned int count, size_t size) {
    std::string frame(std::max<size_t>(size, 8), '\0');
    for (size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<char>((count * 7 + i * 31) & 0xFF);
    }
    frame[0] = static_cast<char>(0xDE);
    frame[1] = '\n';
    std::memcpy(&frame[4], &count, sizeof count);
    return frame;
}

// One periodic stream of items; a period of 0 turns it off.
struct Stream {
    int64_t periodMs = 0;
    unsigned int dataType = kDataTypeAsciiText;
    std::string (*make)(unsigned int count, size_t size) = nullptr;
    size_t size = 0;
    unsigned int count = 0;
    int64_t next = 0;
};

std::string MakePosition(unsigned int count, size_t) {
    return PositionText(count);
}
std::string MakeStatus(unsigned int count, size_t) {
    return StatusText(count);
}

void Record(std::ofstream& journal, std::vector<Stream>& streams) {
    const int64_t now = NowMs();
    for (Stream& stream : streams) {
        if (stream.periodMs <= 0 || now < stream.next) {
            continue;
        }
        const std::string bytes = stream.make(stream.count++, stream.size);
        stream.next += stream.periodMs;
        const int64_t itemTime = ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds;
        if (ReplayClient::SendClientData(bytes.data(), static_cast<unsigned int>(bytes.size()),
                                         false, stream.dataType) >= 0 &&
            ReplayClient::GetReplayState() == ReplayCore::eStateRecord) {
            journal << ReplaySupport::JournalLine({itemTime, stream.dataType, bytes});
        }
    }
}

struct StreamCheck {
    size_t recorded = 0;
    size_t replayed = 0;
    bool identical = true;
    std::vector<int64_t> errors;
};

// Compares one stream (positions or sensor frames) of the replay with the
// journal: the replayed items must be consecutive journal items.
void CheckStream(const std::vector<JournalItem>& journal, const std::vector<Received>& received,
                 StreamCheck& check) {
    check.recorded += journal.size();
    check.replayed += received.size();
    if (received.empty()) {
        return;
    }
    size_t start = 0;
    while (start < journal.size() && journal[start].bytes != received[0].bytes) {
        ++start;
    }
    for (size_t i = 0; i < received.size(); ++i) {
        if (start + i >= journal.size() || journal[start + i].bytes != received[i].bytes) {
            check.identical = false;
            return;
        }
        const int64_t recorded = journal[start + i].timeMs - journal[start].timeMs;
        const int64_t replayed = received[i].momentMs - received[0].momentMs;
        check.errors.push_back(std::llabs(replayed - recorded));
    }
}

// Positions, status texts and sensor frames are checked as separate streams.
int StreamOf(const std::string& bytes) {
    if (bytes.compare(0, 4, "POS ") == 0) {
        return 0;
    }
    return bytes.compare(0, 4, "STS ") == 0 ? 1 : 2;
}

void WriteReceived(const std::string& path) {
    std::ofstream out(path, std::ios::trunc);
    std::lock_guard<std::mutex> lock(g_receivedMutex);
    for (const Received& item : g_received) {
        out << item.momentMs << ' ' << ReplaySupport::Hex(item.bytes) << '\n';
    }
}

void WriteItems(const char* path, const std::vector<JournalItem>& journal,
                const std::vector<Received>& received) {
    std::map<std::string, size_t> index;
    for (size_t i = 0; i < journal.size(); ++i) {
        index.emplace(journal[i].bytes, i);
    }
    std::ofstream out(path);
    for (const Received& item : received) {
        const auto found = index.find(item.bytes);
        out << (found == index.end() ? -1 : static_cast<long long>(found->second)) << ' '
            << (found == index.end() ? 0 : journal[found->second].timeMs) << ' ' << item.momentUs
            << ' ' << item.clockLeadMs << '\n';
    }
}

int Summarise(const std::string& name, const std::string& journalPath) {
    const std::vector<JournalItem> journal = ReplaySupport::ReadJournal(journalPath);
    std::vector<Received> received;
    {
        std::lock_guard<std::mutex> lock(g_receivedMutex);
        received = g_received;
    }
    if (const char* itemsPath = std::getenv("DEMO_CLIENT_ITEMS")) {
        WriteItems(itemsPath, journal, received);
    }
    StreamCheck check;
    for (int stream = 0; stream < 3; ++stream) {
        std::vector<JournalItem> sent;
        std::vector<Received> back;
        for (const JournalItem& item : journal) {
            if (StreamOf(item.bytes) == stream) {
                sent.push_back(item);
            }
        }
        for (const Received& item : received) {
            if (StreamOf(item.bytes) == stream) {
                back.push_back(item);
            }
        }
        CheckStream(sent, back, check);
    }
    std::vector<int64_t>& errors = check.errors;
    double mean = 0;
    int64_t p99 = 0;
    int64_t max = 0;
    if (!errors.empty()) {
        for (int64_t e : errors) {
            mean += static_cast<double>(e);
        }
        mean /= static_cast<double>(errors.size());
        std::sort(errors.begin(), errors.end());
        p99 = errors[std::min(errors.size() - 1, errors.size() * 99 / 100)];
        max = errors.back();
    }
    const bool identical = check.replayed > 0 && check.identical;
    std::printf(
        "\ndemo_client %s: recorded %zu items; replayed %zu items; identical in order: "
        "%s; missing %zu; timing error ms: mean %.1f p99 %lld max %lld\n",
        name.c_str(), check.recorded, check.replayed, identical ? "yes" : "no",
        check.recorded - std::min(check.recorded, check.replayed), mean,
        static_cast<long long>(p99), static_cast<long long>(max));
    std::fflush(stdout);
    return check.replayed == 0 || identical ? 0 : 1;
}

// Sends the timing error of the items replayed so far as a status message.
void ReportTiming(size_t& reportedItems) {
    std::vector<int64_t> leads;
    {
        std::lock_guard<std::mutex> lock(g_receivedMutex);
        leads.reserve(g_received.size());
        // Against the first item, as the summary measures: the distance
        // from where the recorded spacing puts each item.
        for (const Received& item : g_received) {
            leads.push_back(std::llabs(static_cast<int64_t>(item.clockLeadMs) -
                                       g_received.front().clockLeadMs));
        }
    }
    if (leads.empty() || leads.size() == reportedItems) {
        return;
    }
    reportedItems = leads.size();
    double mean = 0;
    for (int64_t lead : leads) {
        mean += static_cast<double>(lead);
    }
    mean /= static_cast<double>(leads.size());
    std::sort(leads.begin(), leads.end());
    char text[120];
    const int length = std::snprintf(
        text, sizeof text, "timing ms: mean %.1f p99 %lld max %lld items %zu", mean,
        static_cast<long long>(leads[std::min(leads.size() - 1, leads.size() * 99 / 100)]),
        static_cast<long long>(leads.back()), leads.size());
    ReplayClient::SendClientMessage(text, static_cast<unsigned int>(length));
}

// Reads "--name value" pairs after the positional arguments; false for
// anything else.
bool ParseOptions(int argc, char** argv, int first, std::vector<Stream>& streams,
                  std::string& receivedPath, int64_t& reportMs) {
    auto periodOf = [](const char* hz) {
        const double rate = std::atof(hz);
        return rate > 0 ? static_cast<int64_t>(std::llround(1000.0 / rate)) : 0;
    };
    for (int i = first; i < argc; i += 2) {
        const std::string option = argv[i];
        if (i + 1 >= argc) {
            return false;
        }
        const char* value = argv[i + 1];
        if (option == "--frame-hz") {
            streams[0].periodMs = periodOf(value);
        } else if (option == "--frame-bytes") {
            streams[0].size = static_cast<size_t>(std::max(8, std::atoi(value)));
        } else if (option == "--position-hz") {
            streams[1].periodMs = periodOf(value);
        } else if (option == "--status-hz") {
            streams[2].periodMs = periodOf(value);
        } else if (option == "--received") {
            receivedPath = value;
        } else if (option == "--report-ms") {
            reportMs = std::max(0, std::atoi(value));
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    // Sensor frames, positions, status texts.
    std::vector<Stream> streams(3);
    streams[0] = {20, kDataTypeBinary, SensorFrame, 48};
    streams[1] = {100, kDataTypeAsciiText, MakePosition, 0};
    streams[2] = {0, kDataTypeAsciiText, MakeStatus, 0};
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("demo_client %s\n", LIBREPLAY_VERSION);
        return 0;
    }
    std::string receivedPath;
    int first = 3;
    double seconds = 0;
    if (argc > 3 && argv[3][0] != '-') {
        seconds = std::atof(argv[3]);
        first = 4;
    }
    int64_t reportMs = 0;
    if (argc < 3 || !ParseOptions(argc, argv, first, streams, receivedPath, reportMs)) {
        std::fprintf(stderr,
                     "usage: demo_client NAME JOURNAL [SECONDS] [--position-hz HZ] "
                     "[--frame-hz HZ] [--frame-bytes N] [--status-hz HZ] [--received FILE] "
                     "[--report-ms MS]\n");
        return 2;
    }
    const std::string name = argv[1];
    const std::string journalPath = argv[2];
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);

    const std::string init = std::string(kInitPrefix) + name;
    ReplayClient::InitializeReplayClient(name.c_str(), OnReplay, nullptr, kDataTypeAsciiText,
                                         init.data(), static_cast<unsigned int>(init.size()));
    std::ofstream journal(journalPath, std::ios::app);
    const int64_t end = seconds > 0 ? NowMs() + static_cast<int64_t>(seconds * 1000) : INT64_MAX;
    int64_t nextReport = 0;
    size_t reportedItems = 0;
    while (!g_stop.load() && NowMs() < end) {
        const ReplayCore::ReplayState state = ReplayClient::GetReplayState();
        if (state == ReplayCore::eStateRecord) {
            Record(journal, streams);
        } else {
            if (reportMs > 0 && state == ReplayCore::eStateReplay && NowMs() >= nextReport) {
                nextReport = NowMs() + reportMs;
                ReportTiming(reportedItems);
            }
            for (Stream& stream : streams) {
                stream.next = NowMs();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    journal.close();
    const int status = Summarise(name, journalPath);
    if (!receivedPath.empty()) {
        WriteReceived(receivedPath);
    }
    ReplayClient::ShutDownClient(0, nullptr);
    return status;
}
