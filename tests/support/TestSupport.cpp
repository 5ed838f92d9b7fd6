#include "tests/support/TestSupport.h"

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "libreplay/server/FileLogger.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/TargetRoot.h"

namespace ReplayTest {

namespace {

std::unique_ptr<ReplaySupport::TemporaryRoot> MakeTemporaryRoot() {
    return std::make_unique<ReplaySupport::TemporaryRoot>(
        "libreplay-test", std::initializer_list<const char*>{"work", "tmp"});
}

void UseTargetRoot(const std::string& root) {
    ReplayPlatform::SetTargetRoot(root);
    setenv("REPLAY_TARGET_ROOT", root.c_str(), 1);
}

std::unique_ptr<ReplaySupport::TemporaryRoot> g_processRoot;

}  // namespace

ProcessTargetRoot::ProcessTargetRoot() {
    g_processRoot = MakeTemporaryRoot();
    if (g_processRoot->Valid()) {
        UseTargetRoot(g_processRoot->Path());
    }
}

ProcessTargetRoot::~ProcessTargetRoot() {
    g_processRoot.reset();
}

void TargetRootTest::SetUp() {
    m_temporary = MakeTemporaryRoot();
    m_root = m_temporary->Path();
    ASSERT_FALSE(m_root.empty()) << "cannot create a temporary root";
    char current[4096];
    m_previousDirectory = getcwd(current, sizeof current) != nullptr ? current : "/";
    ASSERT_EQ(chdir((m_root + "/work").c_str()), 0);
    UseTargetRoot(m_root);
    ReplayCore::FileLogger::ResetForTesting();
}

void TargetRootTest::TearDown() {
    ReplayCore::FileLogger::ResetForTesting();
    UseTargetRoot(g_processRoot ? g_processRoot->Path() : "");
    if (!m_previousDirectory.empty()) {
        (void)chdir(m_previousDirectory.c_str());
    }
    m_temporary.reset();
}

std::string TargetRootTest::MakeTargetDirectory(const std::string& absolutePath) const {
    const std::string path = m_root + absolutePath;
    std::filesystem::create_directories(path);
    return path;
}

std::string TargetRootTest::WriteTargetFile(const std::string& absolutePath,
                                            const std::string& content) const {
    const std::string path = m_root + absolutePath;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    WriteFile(path, content);
    return path;
}

std::string TargetRootTest::ReadTargetFile(const std::string& absolutePath) const {
    return ReadFile(m_root + absolutePath);
}

namespace {
std::atomic<int64_t> g_manualNow{0};
int64_t ReadManualClock() {
    return g_manualNow.load(std::memory_order_relaxed);
}
}  // namespace

ManualClock::ManualClock(int64_t startMs) {
    g_manualNow.store(startMs);
    ReplayCore::SetClockSourceForTesting(&ReadManualClock);
}

ManualClock::~ManualClock() {
    ReplayCore::SetClockSourceForTesting(nullptr);
}

void ManualClock::Set(int64_t ms) {
    g_manualNow.store(ms);
}

void ManualClock::Advance(int64_t ms) {
    g_manualNow.fetch_add(ms);
}

int Occurrences(const std::string& text, const std::string& fragment) {
    int count = 0;
    for (size_t at = text.find(fragment); at != std::string::npos;
         at = text.find(fragment, at + 1)) {
        ++count;
    }
    return count;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

namespace {

struct Capture {
    std::mutex mutex;
    std::vector<CapturedDebug::Line> lines;
};

Capture& TheCapture() {
    static Capture capture;
    return capture;
}

template <CapturedDebug::Channel channel>
void On(const char* format, va_list arguments) {
    char text[4096];
    std::vsnprintf(text, sizeof text, format, arguments);
    Capture& capture = TheCapture();
    std::lock_guard<std::mutex> lock(capture.mutex);
    capture.lines.push_back({channel, text});
}

}  // namespace

CapturedDebug::CapturedDebug(const char* appName) {
    Clear();
    SetupLoggingHandlers(appName, &On<kMessage>, &On<kWarning>, &On<kError>);
}

CapturedDebug::~CapturedDebug() {
    SetupLoggingHandlers(nullptr, nullptr, nullptr, nullptr);
}

std::vector<CapturedDebug::Line> CapturedDebug::Lines() const {
    Capture& capture = TheCapture();
    std::lock_guard<std::mutex> lock(capture.mutex);
    return capture.lines;
}

int CapturedDebug::Count(const std::string& fragment, int channel) const {
    int count = 0;
    for (const Line& line : Lines()) {
        count += (channel < 0 || line.channel == channel) &&
                 line.text.find(fragment) != std::string::npos;
    }
    return count;
}

void CapturedDebug::Clear() {
    Capture& capture = TheCapture();
    std::lock_guard<std::mutex> lock(capture.mutex);
    capture.lines.clear();
}

std::string CapturedDebug::Dump() const {
    static const char* const names[] = {"message", "warning", "error"};
    std::string out;
    for (const Line& line : Lines()) {
        out += std::string(names[line.channel]) + ": " + line.text;
    }
    return out;
}

}  // namespace ReplayTest
