#ifndef TESTS_REFERENCE_MULTICORETESTSUPPORT_H
#define TESTS_REFERENCE_MULTICORETESTSUPPORT_H

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "reference/src/multicore_internal.h"
#include "reference/src/system_log.h"
#include "tests/support/TestSupport.h"

namespace MulticoreTest {

struct Record {
    char console;
    std::string text;
};

// Records are console code, length, text; a cut-off tail becomes console '\0'.
inline std::vector<Record> ParseRecords(const std::string& device) {
    std::vector<Record> records;
    for (size_t position = 0; position < device.size();) {
        const size_t length =
            position + 1 < device.size() ? static_cast<unsigned char>(device[position + 1]) : 0;
        if (position + 2 + length > device.size()) {
            records.push_back({'\0', device.substr(position)});
            break;
        }
        records.push_back({device[position], device.substr(position + 2, length)});
        position += 2 + length;
    }
    return records;
}

class SystemLogCapture {
  public:
    SystemLogCapture() : m_previous(ReplayPlatform::SetSystemLogSink(&Record)) {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_lines.clear();
    }
    ~SystemLogCapture() { ReplayPlatform::SetSystemLogSink(m_previous); }

    int Count(const std::string& fragment) const {
        std::lock_guard<std::mutex> lock(s_mutex);
        return static_cast<int>(std::count_if(
            s_lines.begin(), s_lines.end(),
            [&](const auto& line) { return line.find(fragment) != std::string::npos; }));
    }

  private:
    static void Record(const char* text) {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_lines.push_back(text);
    }
    static inline std::mutex s_mutex;
    static inline std::vector<std::string> s_lines;
    ReplayPlatform::SystemLogSink m_previous;
};

inline std::atomic<unsigned long long> g_fakeNow{0};

class Fixture : public ReplayTest::TargetRootTest {
  protected:
    static constexpr const char* kDevice = "/kfsystem/multicore/navi/multi";

    void SetUp() override {
        ReplayTest::TargetRootTest::SetUp();
        miInternal_resetForTesting();
        g_fakeNow = 1000 * 1000;
        miInternal_setTimeSourceForTesting([] { return g_fakeNow.load(); });
        WriteTargetFile(kDevice, "");
    }
    void TearDown() override {
        miInternal_resetForTesting();
        ReplayTest::TargetRootTest::TearDown();
    }

    std::string Device() const { return ReadTargetFile(kDevice); }
    std::vector<Record> Records() const { return ParseRecords(Device()); }
    std::vector<std::string> FlushedTexts() const {
        mi_flushBuffer();
        std::vector<std::string> texts;
        for (const Record& record : Records()) {
            texts.push_back(record.text);
        }
        return texts;
    }

    SystemLogCapture m_systemLog;
};

}  // namespace MulticoreTest

#endif
