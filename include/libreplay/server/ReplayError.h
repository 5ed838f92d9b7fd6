#ifndef LIBREPLAY_SERVER_REPLAYERROR_H
#define LIBREPLAY_SERVER_REPLAYERROR_H

// The library's error record, returned by value from server-side operations,
// and the process-wide keeper of the most recent serious errors.

#include <atomic>
#include <list>
#include <mutex>
#include <string>

#include "libreplay/ReplayExport.h"

class REPLAY_API ReplayError {
  public:
    // Lower is more serious.
    typedef int ErrorSeverity;
    static constexpr ErrorSeverity eErrorFatal = 0;
    static constexpr ErrorSeverity eErrorSevere = 1;
    static constexpr ErrorSeverity eErrorWarning = 2;
    static constexpr ErrorSeverity eErrorInfo = 3;
    // Chosen from the code: 1 when it is negative, else 3.
    static constexpr ErrorSeverity eErrorBySign = 7;

    // "No Error", code 0, severity 3.
    ReplayError();
    ReplayError(const char* text, int code, ErrorSeverity severity);
    // Located at line/file; without a text the message is built from errno.
    ReplayError(int line, const char* file, const char* text, ErrorSeverity severity);

    // Equal when the other's location is set and both locations match.
    bool operator==(const ReplayError& other) const;

    const std::string& GetText() const { return m_text; }
    int GetCode() const { return m_code; }
    ErrorSeverity GetSeverity() const { return m_severity; }
    const std::string& GetLocation() const { return m_location; }
    unsigned int GetErrorNumber() const { return m_errorNumber; }
    bool IsError() const { return m_severity < eErrorInfo; }

  private:
    std::string m_text;
    int m_code;
    ErrorSeverity m_severity;
    std::string m_location;
    unsigned int m_errorNumber;

    static std::atomic<unsigned int> m_numErrors;
};

class REPLAY_API ReplayErrorManager {
  public:
    static constexpr unsigned int kMaximumErrors = 30;

    static ReplayErrorManager& Get();

    // Keeps `error` when its severity is 2 or lower; returns a copy.
    ReplayError LogError(const ReplayError& error);
    // Builds "context: text   <errno text>" and keeps it (severity 3 too);
    // severities of 4 or more are ignored.
    ReplayError LogError(const char* text, const char* context,
                         ReplayError::ErrorSeverity severity);
    void AddError(const ReplayError& error);
    ReplayError GetLastError() const;
    // Empties the list unless a fatal error has been logged; returns 0.
    int ClearErrors();

    // When set, at most three errors with the same location are kept.
    void SetLimitRepeats(bool limit);
    unsigned int GetErrorCount() const;
    ReplayError::ErrorSeverity GetLowestSeverity() const;
#ifdef REPLAY_INTERNAL_BUILD
    // Back to the state of a fresh manager (tests only).
    void ResetForTesting();
#endif

  private:
    ReplayErrorManager() = default;
    void AddErrorLocked(const ReplayError& error);

    mutable std::mutex m_mutex;
    std::list<ReplayError> m_errors;
    ReplayError::ErrorSeverity m_lowestSeverity = ReplayError::eErrorInfo;
    bool m_limitRepeats = false;
};

#endif
