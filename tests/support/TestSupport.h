#ifndef TESTS_SUPPORT_TESTSUPPORT_H
#define TESTS_SUPPORT_TESTSUPPORT_H

#include <gtest/gtest.h>

#include "support/LoopbackAddress.h"
#include "support/TemporaryRoot.h"
#include "support/WaitFor.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ReplayTest {

// The test main's private target root, so no test writes to real paths.
class ProcessTargetRoot {
  public:
    ProcessTargetRoot();
    ~ProcessTargetRoot();
    ProcessTargetRoot(const ProcessTargetRoot&) = delete;
    ProcessTargetRoot& operator=(const ProcessTargetRoot&) = delete;
};

// A fresh target root per test (also for child processes), "<root>/work"
// the working directory.
class TargetRootTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    const std::string& Root() const { return m_root; }
    std::string MakeTargetDirectory(const std::string& absolutePath) const;
    std::string WriteTargetFile(const std::string& absolutePath, const std::string& content) const;
    std::string ReadTargetFile(const std::string& absolutePath) const;

  private:
    std::unique_ptr<ReplaySupport::TemporaryRoot> m_temporary;
    std::string m_root;
    std::string m_previousDirectory;
};

// Replaces the library clock for its lifetime. One at a time.
class ManualClock {
  public:
    explicit ManualClock(int64_t startMs);
    ~ManualClock();
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    void Set(int64_t ms);
    void Advance(int64_t ms);
};

using ReplaySupport::RandomLoopbackAddress;
using ReplaySupport::WaitFor;

std::string ReadFile(const std::string& path);
int Occurrences(const std::string& text, const std::string& fragment);
void WriteFile(const std::string& path, const std::string& content);

// Captures the three debug channels for its lifetime. One at a time.
class CapturedDebug {
  public:
    enum Channel { kMessage, kWarning, kError };
    struct Line {
        Channel channel;
        std::string text;
    };

    explicit CapturedDebug(const char* appName = "test");
    ~CapturedDebug();
    CapturedDebug(const CapturedDebug&) = delete;
    CapturedDebug& operator=(const CapturedDebug&) = delete;

    std::vector<Line> Lines() const;
    int Count(Channel channel, const std::string& fragment) const {
        return Count(fragment, channel);
    }
    int Count(const std::string& fragment, int channel = -1) const;
    bool Contains(const std::string& fragment) const { return Count(fragment) > 0; }
    void Clear();
    std::string Dump() const;
};

}  // namespace ReplayTest

#endif
