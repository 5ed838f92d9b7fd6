#include "ReplayManager/ReplayOutputFiler.h"

#include <cerrno>
#include <cstring>

#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "reference/src/operating_system.h"
#include "libreplay/server/TargetRoot.h"

// Guards flushing and closing; appending to the block takes no lock.
CMutex replayOutputMutex;

namespace {

constexpr size_t kErrorTextSize = 196;

}  // namespace

ReplayOutputFiler& ReplayOutputFiler::Get() {
    static ReplayOutputFiler filer;
    return filer;
}

ReplayOutputFiler::~ReplayOutputFiler() {
    Close(true);
}

int ReplayOutputFiler::Write(const char* text) {
    static const char* const kTag = "libReplay::ReplayOutputFiler::Write";
    if (text == nullptr) {
        return 0;
    }
    const size_t length = std::strlen(text);
    if (length >= static_cast<size_t>(kBlockSize)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Message of Length %d Exceeds Limit\n", DebugAppName(), kTag,
                     static_cast<int>(length));
        }
        return 0;
    }
    if (static_cast<size_t>(m_count) + length < static_cast<size_t>(kBlockSize)) {
        std::memcpy(m_block + m_count, text, length);
        m_count += static_cast<int>(length);
        return 0;
    }

    CMutexScopedLock lock(replayOutputMutex);
    if (m_stream == nullptr) {
        if (m_resultsFilePath.empty()) {
            // The first flush prefers the network share when it is writable.
            const ReplayRuntimeOptions& options = ReplayRuntimeOptions::Get();
            m_resultsFilePath =
                options.GetResultsFilePath(true) + "/" + options.GetStringValue(eReplayOutputFile);
        }
        m_stream = std::fopen(ReplayPlatform::TargetPath(m_resultsFilePath).c_str(), "a");
        if (m_stream == nullptr) {
            const int error = errno;
            char message[kErrorTextSize];
            std::snprintf(message, sizeof message, "Error %s Opening %s", std::strerror(error),
                          m_resultsFilePath.c_str());
            if (DebugOutputAttached()) {
                dbgError("%s::%s: %s\n", DebugAppName(), kTag, message);
            }
            m_resultsFilePath.clear();
            return -1;
        }
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Writing %d bytes to %s; New data length=%lu\n", DebugAppName(), kTag,
                   m_count, m_resultsFilePath.c_str(), static_cast<unsigned long>(length));
    }
    size_t written = std::fwrite(m_block, 1, static_cast<size_t>(m_count), m_stream);
    if (std::fflush(m_stream) != 0) {
        written = 0;
    }
    if (written < static_cast<size_t>(m_count) && DebugOutputAttached()) {
        char message[kErrorTextSize];
        std::snprintf(message, sizeof message, "Error %s Writing to %s", std::strerror(errno),
                      m_resultsFilePath.c_str());
        dbgError("%s::%s: %s\n", DebugAppName(), kTag, message);
    }
    m_count = 0;
    std::fclose(m_stream);
    m_stream = nullptr;

    std::memcpy(m_block, text, length);
    m_count = static_cast<int>(length);
    return static_cast<int>(written);
}

void ReplayOutputFiler::Close(bool keepPath) {
    static const char* const kTag = "libReplay::ReplayOutputFiler::Close";
    if (m_stream != nullptr) {
        CMutexScopedLock lock(replayOutputMutex);
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: Closing ReplayOutput.txt\n", DebugAppName(), kTag);
        }
        if (m_count > 0) {
            if (DebugOutputAttached()) {
                dbgMessage("%s::%s: Writing %d Bytes\n", DebugAppName(), kTag, m_count);
            }
            const size_t written = std::fwrite(m_block, 1, static_cast<size_t>(m_count), m_stream);
            if ((written < static_cast<size_t>(m_count) || std::fflush(m_stream) != 0) &&
                DebugOutputAttached()) {
                char message[kErrorTextSize];
                std::snprintf(message, sizeof message, "Error %s Writing to ReplayOutput.txt",
                              std::strerror(errno));
                dbgError("%s::%s: %s\n", DebugAppName(), kTag, message);
            }
        }
        m_count = 0;
        std::fclose(m_stream);
        m_stream = nullptr;
    }
    if (!keepPath) {
        m_resultsFilePath.clear();
    }
}

std::string ReplayOutputFiler::GetResultsFilePath() const {
    return ReplayRuntimeOptions::Get().GetResultsFilePath(false);
}

std::string ReplayOutputFiler::GetResultsFilePathName() const {
    return GetResultsFilePath() + "/" +
           ReplayRuntimeOptions::Get().GetStringValue(eReplayOutputFile);
}
