#ifndef TESTS_SUPPORT_TESTSUPPORT_H
#define TESTS_SUPPORT_TESTSUPPORT_H

// Shared helpers for the tests: a private target root and working directory
// per test, polling with a deadline, and capture of the debug channels.

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

// Every test program runs under a private target root of its own, created by
// the test main before the first test and removed after the last, so no test
// can write to the real target paths. Tests that look at files use
// TargetRootTest for a fresh root per test.
class ProcessTargetRoot {
  public:
    ProcessTargetRoot();
    ~ProcessTargetRoot();
    ProcessTargetRoot(const ProcessTargetRoot&) = delete;
    ProcessTargetRoot& operator=(const ProcessTargetRoot&) = delete;
};

// Creates a fresh temporary directory, makes it the target root (also in
// REPLAY_TARGET_ROOT, for child processes) and the working directory
// ("<root>/work"), and removes it afterwards. The file log, kept under the
// root, starts afresh with it (level, write cap and failure counts).
class TargetRootTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The temporary root, without trailing separator.
    const std::string& Root() const { return m_root; }
    // Root() + absolutePath, creating the parent directories.
    std::string MakeTargetDirectory(const std::string& absolutePath) const;
    std::string WriteTargetFile(const std::string& absolutePath, const std::string& content) const;
    std::string ReadTargetFile(const std::string& absolutePath) const;

  private:
    std::unique_ptr<ReplaySupport::TemporaryRoot> m_temporary;
    std::string m_root;
    std::string m_previousDirectory;
};

// Replaces the library clock for its lifetime; the time moves only when the
// test sets it. One at a time.
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
// How often `fragment` occurs in `text`, overlapping occurrences included.
int Occurrences(const std::string& text, const std::string& fragment);
void WriteFile(const std::string& path, const std::string& content);

// Installs capturing handlers on the three debug channels for its lifetime.
// Only one may exist at a time.
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
    // Number of captured lines containing `fragment` (on any channel, or on
    // the given one).
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
