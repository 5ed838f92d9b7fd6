#ifndef TESTS_REPLAYMANAGER_SERVERTESTSUPPORT_H
#define TESTS_REPLAYMANAGER_SERVERTESTSUPPORT_H

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "libreplay/ReplayCore.h"
#include "libreplay/multicore.h"
#include "libreplay/server/ReplayLogger.h"
#include "support/LoopbackAddress.h"
#include "tests/support/RawRecordText.h"
#include "tests/support/TestSupport.h"

namespace ServerTest {

inline constexpr auto& Address = ReplaySupport::LoopbackEndpoint;

using ReplayTest::WithChecksum;  // appends the "%8x\n" checksum field

inline std::string DataRecord(const std::string& name, int64_t ms, unsigned int sequence,
                              const std::string& payload = "data") {
    return WithChecksum("\"" + ReplayCore::MSTime::MSTimeStruct(0, ms).ToString() + ":" + name +
                        ":!1 " + std::to_string(sequence) + ":" + payload);
}

// A status record; an empty message gives the bare connect and ping record.
inline std::string StatusRecord(const std::string& name, int64_t ms, const std::string& message) {
    return WithChecksum("#" + ReplayCore::MSTime::MSTimeStruct(0, ms).ToString() + ":" + name +
                        ":" + message);
}

// Stops at anything that is not a "%4d|payload" record.
inline std::vector<std::string> SplitFramedRecords(const std::string& data) {
    std::vector<std::string> payloads;
    size_t at = 0;
    while (at + 5 <= data.size() && data[at + 4] == '|') {
        const size_t length = static_cast<size_t>(std::atoi(data.substr(at, 4).c_str()));
        if (at + 5 + length > data.size()) {
            break;
        }
        payloads.push_back(data.substr(at + 5, length));
        at += 5 + length;
    }
    return payloads;
}

inline std::string ReadAvailable(int fd) {
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
        out.append(buffer, static_cast<size_t>(n));
    }
    return out;
}

// The process's logger channel closed and its file name at the default around each test.
class LoggerChannelTest : public ReplayTest::TargetRootTest {
  protected:
    static constexpr const char* kChannel = "/kfsystem/multicore/navi/Q";

    void SetUp() override {
        TargetRootTest::SetUp();
        ResetChannel();
    }
    void TearDown() override {
        ResetChannel();
        TargetRootTest::TearDown();
    }
    void MakeMediumAndChannel() const {
        MakeTargetDirectory("/fs/usb0");
        WriteTargetFile(kChannel, "");
    }

  private:
    static void ResetChannel() {
        ReplayLogger::Get().ResetForTesting();
        mi_setLogFileName(nullptr);
    }
};

}  // namespace ServerTest

#endif
