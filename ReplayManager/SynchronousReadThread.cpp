// The client's read thread: the only reader of the client socket. Commands
// from the server ('#' first) move the client's state and carry settings;
// any other datagram is a replay record while the client replays.

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "ReplayManager/SocketOptions.h"
#include "ReplayManager/ClientLogging.h"
#include "ReplayManager/MessageLimiter.h"
#include "ReplayManager/ReplayClientInternal.h"
#include "ReplayManager/DefaultMessageHandlers.h"
#include "ReplayManager/ExecutionTimer.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "ReplayManager/ReplayOutputFiler.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "libreplay/multicore.h"

using ReplayCore::FileLogger;
using ReplayCore::MSTime;

namespace {

const char* const kHandlerTag = "libReplay::SynchronousReadThread::udpClientMessageHandler";

ReplayCore::MessageLimiter g_invalidSocketMessages;
ReplayCore::MessageLimiter g_commandMessages;

constexpr unsigned int kInvalidSocketPauseMs = 50;
constexpr unsigned int kBufferLimit = 65535;
// The multicore console whose level the 'D' key sets: 'q', the client's
// debug channel.
constexpr int kDebugConsole = 'q';
constexpr unsigned int kMaximumConsoleLevel = 3;
constexpr size_t kOutputLineSize = 64;
constexpr size_t kTimerNameSize = 64;
constexpr int kExitWaitMs = 2000;

const char* ClientName() {
    return g_clientName.c_str();
}

// An options file is a small regular file. Anything else named by a server
// (a FIFO that nobody writes, a device without end, a directory, a huge log)
// would stall the read thread or fill the memory while it is read.
constexpr off_t kLargestOptionsFile = 1024 * 1024;

bool IsOptionsFile(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size <= kLargestOptionsFile;
}

bool ParseUnsigned(const std::string& text, unsigned int& value) {
    return std::sscanf(text.c_str(), "%u", &value) == 1;
}

}  // namespace

namespace ReplayClient {

SynchronousReadThread::SynchronousReadThread()
    : CThread(12288, 8, nullptr),
      m_receiveBuffer("ClientReplayThread", 0, kBufferLimit),
      m_decodeBuffer("Ascii7DecodeBuffer", 0, kBufferLimit) {}

SynchronousReadThread::~SynchronousReadThread() {
    RequestStop();
}

bool SynchronousReadThread::Ending() const {
    return m_stopRequested.load(std::memory_order_relaxed) ||
           g_clientStateManager.GetState() == ReplayCore::eStateShutDown;
}

void SynchronousReadThread::WakeFromWait() {
    // Taking the lock orders the caller's change before the waiter's next
    // look at it: the wake cannot fall between its check and its wait.
    { std::lock_guard<std::mutex> lock(m_waitMutex); }
    m_waitWake.notify_all();
}

void SynchronousReadThread::RequestStop() {
    m_stopRequested.store(true, std::memory_order_relaxed);
    WakeFromWait();
    if (getThreadId() == CThread::getCurrentID()) {
        return;
    }
    if (isRunning()) {
        // A blocking read ends when the socket's receiving side is shut.
        const int socket = g_replayClient.Socket();
        if (socket > 0) {
            ReplaySockets::StopReceiving(socket);
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kExitWaitMs);
    while (isRunning() && std::chrono::steady_clock::now() < deadline) {
        CThread::sleep(1);
    }
    if (!isRunning()) {
        join();
    }
}

void SynchronousReadThread::execute() {
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s: Synchronous Read Thread Starting",
                          ClientName());
    while (!Ending()) {
        while (g_replayClient.Socket() < 1 && !Ending()) {
            if (g_invalidSocketMessages.Allow() && DebugOutputAttached()) {
                dbgMessage("%s::%s: %s: Synchronous Read Thread: Invalid Socket\n", DebugAppName(),
                           "libReplay::SynchronousReadThread::execute", ClientName());
            }
            CThread::sleep(kInvalidSocketPauseMs);
        }
        if (Ending()) {
            break;
        }

        // One byte more than a datagram, so that the text stays terminated.
        unsigned char* buffer = m_receiveBuffer.ExpandBuffer(kReadSize + 1, true);
        if (buffer == nullptr) {
            break;
        }
        const int length = g_replayClient.Read(buffer, kReadSize);
        if (m_stopRequested.load(std::memory_order_relaxed)) {
            break;
        }
        if (length < 0) {
            // Only stops the client: a later command can start it again.
            LogClientMessage(FileLogger::eSeverityError,
                             "Synchronous Read Thread: Error Return by Read; errno=%s",
                             std::strerror(errno));
            g_clientStateManager.SetClientState(ReplayCore::eStateStopped, nullptr);
            continue;
        }
        udpClientMessageHandler(buffer, length);
        if (g_clientStateManager.GetState() == ReplayCore::eStateShutDown) {
            LogClientMessage(FileLogger::eSeverityWarning, "Synchronous Read Thread Shutting Down");
            return;
        }
    }
    LogClientMessage(FileLogger::eSeverityWarning, "Synchronous Read Thread Shutting Down");
}

int SynchronousReadThread::udpClientMessageHandler(const unsigned char* data, int length) {
    if (g_clientStateManager.GetState() == ReplayCore::eStateShutDown) {
        return 0;
    }
    const int error = errno;
    char timerName[kTimerNameSize];
    std::snprintf(timerName, sizeof timerName, "%s:ClientMessageHandler", ClientName());
    ReplayCore::ExecutionTimer& timer =
        ReplayCore::ExecutionTimerManager::Get().GetTimer(timerName);
    timer.Start();
    const MSTime::MSTimeStruct now = MSTime::CurrentTimeMS();
    const std::string nowText = now.ToString();
    SetupDefaultMessageHandlers(ClientName());

    if (length < 0) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %s\n", DebugAppName(), kHandlerTag, std::strerror(error));
        }
        LogClientMessage(FileLogger::eSeverityError,
                         "udpClientMessageHandler: Receive Error, text=%s", std::strerror(error));
        Disconnect();
    } else if (length == 0 || data == nullptr) {
        LogClientMessage(FileLogger::eSeverityError,
                         "udpClientMessageHandler: Zero Length Message Received, text=%s",
                         std::strerror(error));
        Disconnect();
    } else {
        g_clientStateManager.SetClientConnected();
        if (data[0] == '#') {
            HandleCommand(data, length, now, nowText);
        } else if (g_clientStateManager.GetState() == ReplayCore::eStateReplay) {
            // The record is handed over in this thread's own buffer, which
            // the record processing may use as its working text.
            unsigned char* record = m_receiveBuffer.Get();
            if (record != data) {
                record = m_receiveBuffer.ExpandBuffer(static_cast<unsigned int>(length) + 1, true);
                if (record != nullptr) {
                    std::memcpy(record, data, static_cast<size_t>(length));
                }
            }
            if (record != nullptr) {
                ProcessReplayRecord(reinterpret_cast<char*>(record), length);
            }
        }
    }

    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: %s: Finished Processing message block at %s; length=%d\n",
                   DebugAppName(), kHandlerTag, ClientName(), nowText.c_str(), length);
    }
    timer.Stop();
    return 0;
}

void SynchronousReadThread::HandleCommand(const unsigned char* data, int length,
                                          const MSTime::MSTimeStruct& now,
                                          const std::string& nowText) {
    const std::string command(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
    if (g_commandMessages.Allow() && DebugOutputAttached()) {
        dbgWarning("%s::%s: %s: Message Received:%s; length=%d\n", DebugAppName(), kHandlerTag,
                   ClientName(), command.c_str(), length);
    }
    ReplayCore::ReplayStateManager::CommandArgsParser parser;
    const ReplayCore::ReplayState state =
        ReplayCore::ReplayStateManager::GetStateFromCommand(command, parser);
    g_clientStateManager.SetClientState(state,
                                        g_replayMessageHandler.load(std::memory_order_relaxed));
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Message Received:%s\n", DebugAppName(), kHandlerTag, command.c_str());
    }

    // Each key is applied on its own; a bad value skips only its key.
    std::string value;
    if (parser.Get('c', value)) {
        if (IsOptionsFile(value)) {
            ReplayRuntimeOptions& options = ReplayRuntimeOptions::Get();
            options.OpenOptionsFile(value.c_str());
            const unsigned int level =
                static_cast<unsigned int>(options.GetIntegerValue(eClientUDPDebugLevel));
            g_LoggingLevel.store(level, std::memory_order_relaxed);
            if (DebugOutputAttached()) {
                dbgMessage("%s::%s: Client Debug Level set to %u\n", DebugAppName(), kHandlerTag,
                           level);
            }
        } else if (DebugOutputAttached()) {
            dbgError("%s::%s: Not an Options File: %s\n", DebugAppName(), kHandlerTag,
                     value.c_str());
        }
    }

    if (parser.Get('s', value)) {
        unsigned int slot = 0;
        if (ParseUnsigned(value, slot)) {
            if (DebugOutputAttached()) {
                dbgMessage("%s::%s: Time Slot set to %u\n", DebugAppName(), kHandlerTag, slot);
            }
            g_UDPSendBuffer.SetTimeSlot(slot);
        } else if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Time Slot %s\n", DebugAppName(), kHandlerTag, value.c_str());
        }
    }

    if (parser.Get('D', value)) {
        unsigned int level = 0;
        if (ParseUnsigned(value, level) && level <= kMaximumConsoleLevel) {
            if (DebugOutputAttached()) {
                dbgMessage("%s::%s: Setting Debug Level to %d\n", DebugAppName(), kHandlerTag,
                           static_cast<int>(level));
            }
            mi_setDebugLevel(kDebugConsole, static_cast<int>(level));
        } else if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Debug Level %d\n", DebugAppName(), kHandlerTag,
                     static_cast<int>(level));
        }
    }

    if (parser.Get('t', value)) {
        // Only measured and reported: how far the server's clock is behind.
        const MSTime::MSTimeStruct serverTime(value);
        if (serverTime.m_timeMilliseconds <= 0) {
            FileLogger::LogAssertion(396, kClientSourceFile, "serverTime > 0");
        }
        if (now.m_timeMilliseconds < serverTime.m_timeMilliseconds) {
            FileLogger::LogAssertion(397, kClientSourceFile, "clockTime >= serverTime");
        }
        const MSTime::MSTimeStruct latency(0,
                                           now.m_timeMilliseconds - serverTime.m_timeMilliseconds);
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: server time=%s; current time=%s; Latency = %s \n", DebugAppName(),
                       kHandlerTag, value.c_str(), nowText.c_str(), latency.ToString().c_str());
        }
    }

    if (parser.Get('l', value)) {
        const MSTime::MSTimeStruct logTime(value);
        const int latency = ReplayRuntimeOptions::Get().GetIntegerValue(eNetworkingLatency);
        m_latencyMs.store(latency, std::memory_order_relaxed);
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: Setting Clock to %s; Server Log Time=%s; Latency = %d MS\n",
                       DebugAppName(), kHandlerTag, logTime.ToString().c_str(), value.c_str(),
                       latency);
        }
        m_replayClock.SetStartTime(logTime);

        char line[kOutputLineSize];
        std::snprintf(line, sizeof line, "OFFSET %lld \n",
                      static_cast<long long>(m_replayClock.GetOffsetTime().m_timeMilliseconds));
        ReplayOutputFiler::Get().Write(line);
        std::snprintf(line, sizeof line, "CURRENT TIME: %s \n", nowText.c_str());
        ReplayOutputFiler::Get().Write(line);
        m_clockSet.store(true, std::memory_order_relaxed);
    }
}

}  // namespace ReplayClient
