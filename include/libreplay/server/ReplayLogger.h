#ifndef LIBREPLAY_SERVER_REPLAYLOGGER_H
#define LIBREPLAY_SERVER_REPLAYLOGGER_H

// The replay server's connection to the logger service's navigation channel,
// which appends what it receives to the log file, and the framing of one log
// record: "%4d|" with the payload length, then the payload. In payloads that
// start with '!' every CR and LF except the last byte is stored as 215 and
// 216, so that such a record stays on one line of the stored file.

#include <atomic>
#include <cstdio>
#include <string>

#include "libreplay/server/ReplayError.h"
#include "libreplay/ReplayExport.h"

class REPLAY_API ReplayLogger {
  public:
    // Largest framed record: length field, '|' and payload.
    static constexpr unsigned int kMaximumRecordSize = 2048;
    static constexpr unsigned int kFramingLength = 5;
    static constexpr unsigned char kEscapedCarriageReturn = 215;
    static constexpr unsigned char kEscapedLineFeed = 216;

    // The removable medium that must be present before recording starts.
    static constexpr const char* kUsbMediumPath = "/fs/usb0";
    static constexpr const char* kMulticoreRoot = "/kfsystem/multicore";
    static constexpr const char* kReplayChannel = "/navi/Q";
    // The file the logger service is told to append to.
    static constexpr const char* kLogFileName = "/fs/usb0/LOGFILE.DAT";

    static ReplayLogger& Get();

    // True when connected; otherwise tries once to connect.
    bool Connect();
    // The channel stays open for the life of the process: the logger service
    // owns the file, so there is nothing to close.
    void Disconnect() {}
    bool IsConnected() const;
    // Frames `text` as one record and writes it with one write.
    ReplayError WriteTextToLog(const std::string& text);

    // Builds the framed record of `text` into `record` (room for
    // kMaximumRecordSize bytes); its length, or -1 when the text is too long.
    static int FrameRecord(const std::string& text, char* record);

#ifdef REPLAY_INTERNAL_BUILD
    // Closes the channel and restarts the failure counting (tests only).
    void ResetForTesting();
#endif

  private:
    ReplayLogger() = default;

    std::atomic<int> m_loggerFD{0};
    // An alternative stream beside the descriptor; this library leaves it
    // null.
    FILE* m_logStream = nullptr;
};

#endif
