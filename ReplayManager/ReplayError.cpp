#include "libreplay/server/ReplayError.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "ReplayManager/ReplayFiles.h"

std::atomic<unsigned int> ReplayError::m_numErrors{0};

namespace {

// Error texts end up in XML status reports; characters that would break them
// are replaced.
void ReplaceXMLEntities(std::string& text) {
    for (char& c : text) {
        c = ReplayCore::ReplaceXMLEntity(c);
    }
}

}  // namespace

ReplayError::ReplayError()
    : m_text("No Error"), m_code(0), m_severity(eErrorInfo), m_location(), m_errorNumber(0) {}

ReplayError::ReplayError(const char* text, int code, ErrorSeverity severity)
    : m_text(text != nullptr ? text : ""),
      m_code(code),
      m_severity(severity),
      m_location(),
      m_errorNumber(0) {
    if (m_severity == eErrorBySign) {
        m_severity = code < 0 ? eErrorSevere : eErrorInfo;
    }
    ReplaceXMLEntities(m_text);
    if (m_severity < eErrorInfo && DebugOutputAttached()) {
        dbgError("%s::%s: %s\n", DebugAppName(), "libReplay::ReplayError::ctor2", m_text.c_str());
    }
    m_errorNumber = m_numErrors.fetch_add(1, std::memory_order_relaxed) + 1;
}

ReplayError::ReplayError(int line, const char* file, const char* text, ErrorSeverity severity)
    : m_text(), m_code(-1), m_severity(severity), m_location(), m_errorNumber(0) {
    const int savedErrno = errno;
    const std::string fileName = ReplayFiles::GetFileName(file != nullptr ? file : "");
    char buffer[196];
    if (text != nullptr) {
        std::snprintf(buffer, sizeof buffer, "%s line %d: %s", fileName.c_str(), line, text);
    } else {
        std::snprintf(buffer, sizeof buffer, "%s line %d: Errno=%d; text:%s", fileName.c_str(),
                      line, savedErrno, std::strerror(savedErrno));
        errno = 0;
    }
    m_text = buffer;
    ReplaceXMLEntities(m_text);
    std::snprintf(buffer, sizeof buffer, "%d:%s", line, fileName.c_str());
    m_location = buffer;
    if (DebugOutputAttached()) {
        dbgError("%s::%s: %s\n", DebugAppName(), "libReplay::ReplayError::ctor", m_text.c_str());
    }
    ReplayCore::FileLogger::LogToFile(ReplayCore::FileLogger::eSeverityInfo, "%s", m_text.c_str());
    m_errorNumber = m_numErrors.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool ReplayError::operator==(const ReplayError& other) const {
    return !other.m_location.empty() && other.m_location == m_location;
}

ReplayErrorManager& ReplayErrorManager::Get() {
    static ReplayErrorManager manager;
    return manager;
}

ReplayError ReplayErrorManager::LogError(const ReplayError& error) {
    if (error.GetSeverity() > ReplayError::eErrorWarning) {
        return error;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (error.GetSeverity() < m_lowestSeverity) {
        m_lowestSeverity = error.GetSeverity();
    }
    AddErrorLocked(error);
    return error;
}

ReplayError ReplayErrorManager::LogError(const char* text, const char* context,
                                         ReplayError::ErrorSeverity severity) {
    if (severity >= 4) {
        return ReplayError();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (severity < m_lowestSeverity) {
            m_lowestSeverity = severity;
        }
    }
    const int savedErrno = errno;
    if (text == nullptr && savedErrno == 0) {
        return ReplayError();
    }
    std::string message;
    if (context != nullptr) {
        message = std::string(context) + ": ";
    }
    if (text != nullptr) {
        message += text;
    }
    if (savedErrno > 0) {
        message += "   ";
        message += std::strerror(savedErrno);
    }
    errno = 0;
    // The record is built outside the lock: its constructor may call the
    // application's debug handler.
    const ReplayError error(message.c_str(), -1, severity);
    AddError(error);
    return error;
}

void ReplayErrorManager::AddError(const ReplayError& error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    AddErrorLocked(error);
}

void ReplayErrorManager::AddErrorLocked(const ReplayError& error) {
    // The oldest entry makes room before the repeat check, whether or not the
    // new one is then kept.
    if (m_errors.size() > kMaximumErrors - 1) {
        m_errors.pop_front();
    }
    if (!m_limitRepeats) {
        m_errors.push_back(error);
        return;
    }
    unsigned int repeats = 0;
    for (const ReplayError& kept : m_errors) {
        if (kept == error) {
            ++repeats;
        }
    }
    if (repeats < 3) {
        m_errors.push_back(error);
    }
}

ReplayError ReplayErrorManager::GetLastError() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors.empty() ? ReplayError() : m_errors.back();
}

int ReplayErrorManager::ClearErrors() {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Once a fatal error has been logged the list is kept for good.
    if (m_lowestSeverity > ReplayError::eErrorFatal) {
        m_errors.clear();
    }
    return 0;
}

void ReplayErrorManager::SetLimitRepeats(bool limit) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_limitRepeats = limit;
}

unsigned int ReplayErrorManager::GetErrorCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<unsigned int>(m_errors.size());
}

ReplayError::ErrorSeverity ReplayErrorManager::GetLowestSeverity() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lowestSeverity;
}

void ReplayErrorManager::ResetForTesting() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_errors.clear();
    m_lowestSeverity = ReplayError::eErrorInfo;
    m_limitRepeats = false;
}
