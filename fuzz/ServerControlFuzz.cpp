// Operator command lines through ServerControl::Execute on a server that is
// not started: the command parser, the job start and stop paths, and the
// replay plan loader on whatever paths the input names, and the control of a
// running replay. Each input is split
// into lines; every job is ended before the next input, and the server is
// brought back to the stopped state.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayLogReader.h"
#include "server/ServerControl.h"

namespace {

constexpr size_t kMaxLines = 32;
constexpr size_t kMaxLineLength = 512;

// A record with its "%8x\n" checksum of every byte so far, each read as signed.
std::string WithChecksum(std::string record) {
    uint32_t sum = 0;
    for (char c : record) {
        sum += static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
    }
    char trailer[16];
    std::snprintf(trailer, sizeof trailer, "%8x\n", sum);
    return record + trailer;
}

void Store(const std::string& payload, std::string& log) {
    std::string framed;
    if (ReplayCore::LogFormat::FrameRecord(payload, framed)) {
        ReplayCore::LogFormat::AppendStoredRecord(framed.data(), framed.size(), log);
    }
}

// A small log in the working directory, so that "replay seed.dat" with its
// options reaches the replay job.
void WriteSeedLog() {
    std::string log;
    Store(ReplayCore::LogFormat::HeaderPayload(1000), log);
    for (unsigned int i = 0; i < 4; ++i) {
        const std::string time = ReplayCore::MSTime::MSTimeStruct(0, 1000 + 200 * i).ToString();
        Store(WithChecksum("\"" + time + ":gps:!1 " + std::to_string(i) + ":item"), log);
    }
    Store(ReplayCore::LogFormat::HeaderPayload(5000), log);
    Store(WithChecksum("\"5.000:can:!1 1:x"), log);
    std::FILE* file = std::fopen("seed.dat", "wb");
    if (file != nullptr) {
        std::fwrite(log.data(), 1, log.size(), file);
        std::fclose(file);
    }
}

struct Harness {
    Harness() : server(Settings()), control(server, ReplaySettings(), [](const std::string&) {}) {}

    static ReplayServer::ServerSettings Settings() {
        FuzzSupport::Initialise();
        if (!FuzzSupport::TargetRoot().empty() && chdir(FuzzSupport::TargetRoot().c_str()) == 0) {
            WriteSeedLog();
            // Runs before the shared clean-up, which removes only what it made.
            std::atexit([] { std::remove((FuzzSupport::TargetRoot() + "/seed.dat").c_str()); });
        }
        ReplayServer::ServerSettings settings;
        settings.stopSettleMs = 0;
        return settings;
    }
    static ReplayServer::ReplaySettings ReplaySettings() {
        ReplayServer::ReplaySettings settings;
        settings.clientWaitMs = 1;
        settings.endGraceMs = 0;
        return settings;
    }

    ReplayServer::ReplayServer server;
    ReplayServer::ServerControl control;
};

Harness& Get() {
    static Harness harness;
    return harness;
}

bool IsWait(const std::string& line) {
    const size_t start = line.find_first_not_of(" \t\r\v\f");
    return start != std::string::npos && line.compare(start, 4, "wait") == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness& harness = Get();
    const std::string input(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    for (size_t lines = 0; lines < kMaxLines && start <= input.size(); ++lines) {
        size_t end = input.find('\n', start);
        if (end == std::string::npos) {
            end = input.size();
        }
        const std::string line = input.substr(start, std::min(end - start, kMaxLineLength));
        start = end + 1;
        // A replay's report may name any path: never written from here.
        if (line.find("--report") != std::string::npos) {
            continue;
        }
        // "wait" blocks until the job ends: a timed recording would hold
        // the input for its whole length, so the job is ended first.
        if (IsWait(line)) {
            harness.control.StopJob();
        }
        harness.control.Execute(line);
    }
    harness.control.StopJob();
    harness.control.Execute("wait");
    if (harness.server.GetState() != ReplayCore::eStateStopped) {
        harness.control.Execute("stop");
    }
    return 0;
}
