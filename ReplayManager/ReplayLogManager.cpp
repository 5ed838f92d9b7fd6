#include "libreplay/server/ReplayLogManager.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "ReplayManager/MessageLimiter.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/FileLogger.h"
#include "ReplayManager/MemoryBuffer.h"
#include "libreplay/server/ReplayDebug.h"
#include "reference/src/file_io.h"
#include "reference/src/operating_system.h"
#include "libreplay/server/ReplayLogger.h"

using ReplayCore::FileLogger;
using ReplayCore::MSTime;

namespace {

// The write queue's errors and assertions are located in the logger's source,
// the name under which readers of the error list know the whole log path.
const char* const kLoggerSourceLocation = "ReplayManager/ReplayLogger";
const char* const kWriteTag = "ReplayServer::ReplayLogger::WriteClientDataToLog";
constexpr size_t kTextLimit = 128;
// The receive buffer of the writer thread never grows past this.
constexpr unsigned int kPipeBufferLimit = 65535;

// Per-record file-log lines are at the debug level; their arguments are only
// built when that level is on.
bool DebugFileLogOn() {
    return FileLogger::GetLogginglevel() >= FileLogger::eSeverityDebug;
}

// A pipe is a byte stream: records written one after another can come back
// from a single read, run together. Where the kernel offers packet mode,
// the pipe's two descriptor numbers are moved onto a packet-mode pipe, in
// which every write of up to PIPE_BUF bytes comes back from exactly one read.
// Otherwise the stream pipe stays.
void UsePacketMode(CPipe& pipe) {
    int ends[2];
    if (!ReplayPlatform::OpenPipe(ends, ReplayPlatform::PipeMode::kPacket)) {
        return;
    }
    if (!ReplayPlatform::ReplaceDescriptor(ends[0], pipe.getReadDescriptor()) ||
        !ReplayPlatform::ReplaceDescriptor(ends[1], pipe.getWriteDescriptor())) {
        // Neither end was switched, or both pipes are now crossed: fall back
        // to a fresh stream pipe on the same numbers.
        int stream[2];
        if (ReplayPlatform::OpenPipe(stream, ReplayPlatform::PipeMode::kStream)) {
            (void)ReplayPlatform::ReplaceDescriptor(stream[0], pipe.getReadDescriptor());
            (void)ReplayPlatform::ReplaceDescriptor(stream[1], pipe.getWriteDescriptor());
            ReplayPlatform::CloseDescriptor(stream[0]);
            ReplayPlatform::CloseDescriptor(stream[1]);
        }
    }
    ReplayPlatform::CloseDescriptor(ends[0]);
    ReplayPlatform::CloseDescriptor(ends[1]);
}

}  // namespace

std::atomic<ReplayLogManager::WrittenHook> ReplayLogManager::s_writtenHook{nullptr};
std::atomic<void*> ReplayLogManager::s_writtenContext{nullptr};
std::atomic<uint64_t> ReplayLogManager::s_lateRecords{0};

void ReplayLogManager::SetWrittenHook(WrittenHook hook, void* context) {
    s_writtenContext.store(context, std::memory_order_release);
    s_writtenHook.store(hook, std::memory_order_release);
}

ReplayLogManager::ReplayLogManager() : m_buffers(MAX_BUFFERS), m_currentBufferIdx(0) {}

bool ReplayLogManager::Connect(const MSTime::MSTimeStruct& startTime) {
    ReplayLogger& logger = ReplayLogger::Get();
    if (logger.IsConnected()) {
        return true;
    }
    if (!logger.Connect()) {
        return false;
    }
    char header[kTextLimit];
    std::snprintf(header, sizeof header, "%c%s:%s:\n", '!', startTime.ToString().c_str(),
                  ReplayCore::SpecialStrings::kLoggingSystem);
    // A header that cannot be written does not stop recording.
    logger.WriteTextToLog(header);
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Logger Opened at time %s\n", DebugAppName(),
                   "ReplayServer::ReplayLogManager::Connect", startTime.ToString().c_str());
    }
    return true;
}

void ReplayLogManager::Disconnect() {
    m_currentBufferIdx = 0;
    m_clientNames.clear();
    ReplayLogger::Get().Disconnect();
}

void ReplayLogManager::SortNewestFirst() {
    for (size_t i = 1; i < m_buffers.size(); ++i) {
        size_t j = i;
        while (j > 0 && ClientDataCompare(m_buffers[j], m_buffers[j - 1])) {
            std::swap(m_buffers[j], m_buffers[j - 1]);
            --j;
        }
    }
}

void ReplayLogManager::PlaceNewestArrival(unsigned int index) {
    // Write-out runs from the end of the queue (oldest) to the front, so
    // among records of equal time the latest arrival must sit nearest the
    // front; the stable sort alone would leave it behind its equals and
    // write a burst of equal-time blocks in reverse.
    for (size_t j = index; j > 0 && !ClientDataCompare(m_buffers[j - 1], m_buffers[j]); --j) {
        std::swap(m_buffers[j], m_buffers[j - 1]);
    }
}

ReplayError ReplayLogManager::WriteClientDataToLog(
    const std::string& clientName, const MSTime::MSTimeStruct& timestamp, unsigned int /*dataType*/,
    unsigned int sequenceNumber, const std::string& record, ClientDataList* clients, bool flush) {
    const bool debug = DebugOutputAttached();
    if (m_currentBufferIdx >= MAX_BUFFERS) {
        FileLogger::LogAssertion(332, kLoggerSourceLocation, "m_currentBufferIdx < MAX_BUFFERS");
    }
    m_clientNames.insert(clientName);

    if (sequenceNumber == 0) {
        // Calibration and status records are buffered but do not open the log.
        if (debug) {
            dbgMessage("%s::%s: Calibration Record Received for Client %s, timestamp %s,slot %d\n",
                       DebugAppName(), kWriteTag, clientName.c_str(), timestamp.ToString().c_str(),
                       static_cast<int>(m_currentBufferIdx));
        }
        if (FileLogger::GetLogginglevel() >= FileLogger::eSeverityInfo) {
            FileLogger::LogToFile(FileLogger::eSeverityInfo,
                                  "Calibration Record Received for Client %s, timestamp %s,slot %d",
                                  clientName.c_str(), timestamp.ToString().c_str(),
                                  static_cast<int>(m_currentBufferIdx));
        }
    } else if (!Connect(timestamp)) {
        // Recording waits silently for the log medium; the header then
        // carries the time of the first record that can be written.
        return ReplayError();
    }

    if (m_currentBufferIdx > kQueueLimit) {
        char text[kTextLimit];
        std::snprintf(text, sizeof text, "%d Buffers in Use; Exceeds limit of %d",
                      static_cast<int>(m_currentBufferIdx), static_cast<int>(MAX_BUFFERS));
        return ReplayErrorManager::Get().LogError(
            ReplayError(353, kLoggerSourceLocation, text, ReplayError::eErrorSevere));
    }

    if (timestamp.m_timeMilliseconds <
        m_lastBlockTimestamp.m_timeMilliseconds - kLateRecordLimitMs) {
        // Older than what has been written by more than a second: too late to
        // reorder. ("Proceeds" is the established wording of this message.)
        s_lateRecords.fetch_add(1, std::memory_order_relaxed);
        char text[kTextLimit * 2];
        std::snprintf(text, sizeof text,
                      "Client %s: Record Timestamp of %s Proceeds Last Block TimeStamp of %s",
                      clientName.c_str(), timestamp.ToString().c_str(),
                      m_lastBlockTimestamp.ToString().c_str());
        const ReplayError late = ReplayErrorManager::Get().LogError(
            ReplayError(361, kLoggerSourceLocation, text, ReplayError::eErrorWarning));
        if (debug) {
            dbgMessage("%s::%s: %s\n", DebugAppName(), kWriteTag, late.GetText().c_str());
        }
        return ReplayError();
    }

    ClientDataBuffer& slot = m_buffers[m_currentBufferIdx];
    slot.m_clientName.assign(clientName);
    slot.m_timestamp = timestamp;
    slot.m_record.assign(record);
    PlaceNewestArrival(m_currentBufferIdx);
    if (debug) {
        dbgMessage("%s::%s: Msg Recd Client %s, timestamp %s,slot %d\n", DebugAppName(), kWriteTag,
                   clientName.c_str(), timestamp.ToString().c_str(),
                   static_cast<int>(m_currentBufferIdx));
    }
    if (DebugFileLogOn()) {
        FileLogger::LogToFile(FileLogger::eSeverityDebug,
                              "Msg Recd Client %s, timestamp %s,slot %d", clientName.c_str(),
                              timestamp.ToString().c_str(), static_cast<int>(m_currentBufferIdx));
    }

    if (m_currentBufferIdx < kQueueLimit) {
        ++m_currentBufferIdx;
    }
    if (m_currentBufferIdx == kQueueLimit) {
        if (debug) {
            dbgWarning("%s::%s: Limit Reached on Length of Write Queue\n", DebugAppName(),
                       kWriteTag);
        }
        FileLogger::LogToFile(FileLogger::eSeverityWarning,
                              "Limit Reached on Length of Write Queue");
    }
    if (flush && debug) {
        dbgMessage("%s::%s: Flushing Remaining %d Records\n", DebugAppName(), kWriteTag,
                   static_cast<int>(m_currentBufferIdx));
    }

    if (m_currentBufferIdx > kWriteOutThreshold || flush) {
        return WriteOut(clients, flush);
    }
    return ReplayError();
}

ReplayError ReplayLogManager::WriteOut(ClientDataList* clients, bool flush) {
    const bool debug = DebugOutputAttached();
    SortNewestFirst();
    const int count = static_cast<int>(m_currentBufferIdx);
    int i = count - 1;
    m_lastBlockTimestamp = m_buffers[i].m_timestamp;
    const int64_t newest = m_buffers[0].m_timestamp.m_timeMilliseconds;

    for (;;) {
        const int32_t timespan =
            static_cast<int32_t>(newest - m_lastBlockTimestamp.m_timeMilliseconds);
        if (!flush && timespan < kQueueSpanMs && count < static_cast<int>(kQueueLimit)) {
            break;
        }
        ClientDataBuffer& slot = m_buffers[i];
        if (debug) {
            dbgMessage(
                "%s::%s: Writing Record for %s ; timestamp %s; size = %d; slot=%d; timespan=%d\n",
                DebugAppName(), kWriteTag, slot.m_clientName.c_str(),
                slot.m_timestamp.ToString().c_str(), static_cast<int>(slot.m_record.size()), i,
                timespan);
        }
        if (DebugFileLogOn()) {
            FileLogger::LogToFile(FileLogger::eSeverityDebug,
                                  "Writing Record for %s ; timestamp %s; size = %d; slot=%d; "
                                  "timespan=%d; %d records remain",
                                  slot.m_clientName.c_str(), slot.m_timestamp.ToString().c_str(),
                                  static_cast<int>(slot.m_record.size()), i, timespan, count);
        }
        if (clients != nullptr) {
            clients->IncrementPacketsKept(slot.m_clientName, true);
        }
        const ReplayError written = ReplayLogger::Get().WriteTextToLog(slot.m_record);
        if (written.GetSeverity() <= ReplayError::eErrorSevere) {
            // The slot stays buffered for the next write-out; slots already
            // written are no longer counted, so they are not written twice.
            m_currentBufferIdx = static_cast<unsigned int>(i + 1);
            return written;
        }
        if (const WrittenHook hook = s_writtenHook.load(std::memory_order_acquire)) {
            hook(s_writtenContext.load(std::memory_order_acquire), slot.m_record.data(),
                 slot.m_record.size());
        }
        slot.m_timestamp = MSTime::MSTimeStruct(0, -1);
        --i;
        if (i < 0) {
            break;  // a flush ends after the newest slot
        }
        if (!flush && i <= static_cast<int>(m_clientNames.size())) {
            break;
        }
        m_lastBlockTimestamp = m_buffers[i].m_timestamp;
    }
    m_currentBufferIdx = static_cast<unsigned int>(i + 1);
    return ReplayError();
}

CPipe LogWriterThread::m_pipe;
ReplayError LogWriterThread::m_errorStatus;
std::atomic<bool> LogWriterThread::s_pipeOpen{false};
std::mutex LogWriterThread::s_errorStatusMutex;

class LogWriterThread::Runner : public CThread {
  public:
    Runner(LogWriterThread& owner, int threadStackSize, int threadPriority)
        : CThread(threadStackSize, threadPriority, nullptr), m_owner(owner) {}

  protected:
    void execute() override { m_owner.execute(); }

  private:
    LogWriterThread& m_owner;
};

LogWriterThread::LogWriterThread(const ReplayCore::ReplayState& state, int stackSize, int priority)
    : m_state(state), m_runner(new Runner(*this, stackSize, priority)) {}

LogWriterThread::~LogWriterThread() {
    // A thread that has just started may not have opened the pipe yet.
    while (m_runner->isRunning() && !PipeOpen()) {
        CThread::sleep(1);
    }
    if (PipeOpen()) {
        m_pipe.close(CPipe::eWrite);
    }
    m_runner->join();
    m_pipe.close(CPipe::eBoth);
    s_pipeOpen.store(false, std::memory_order_release);
}

bool LogWriterThread::start() {
    return m_runner->start();
}

int LogWriterThread::WriteRecord(const char* record, unsigned int length) {
    if (!PipeOpen()) {
        return -1;
    }
    return m_pipe.write(record, length);
}

ReplayError LogWriterThread::GetErrorStatus() {
    std::lock_guard<std::mutex> lock(s_errorStatusMutex);
    return m_errorStatus;
}

void LogWriterThread::SetErrorStatus(const ReplayError& error) {
    std::lock_guard<std::mutex> lock(s_errorStatusMutex);
    m_errorStatus = error;
}

void LogWriterThread::execute() {
    static const char* const kTag = "ReplayServer::LogWriterThread::execute";
    if (!m_pipe.open(true, false)) {
        SetErrorStatus(ReplayErrorManager::Get().LogError(
            ReplayError(543, kLoggerSourceLocation, nullptr, ReplayError::eErrorFatal)));
        return;
    }
    UsePacketMode(m_pipe);
    s_pipeOpen.store(true, std::memory_order_release);

    ReplayCore::MemoryBuffer buffer("LogWriterThread::execute", 0, kPipeBufferLimit);
    // Each per-record message stops after the first records.
    static ReplayCore::MessageLimiter waitingMessages;
    static ReplayCore::MessageLimiter processingMessages;
    static ReplayCore::MessageLimiter finishedMessages;
    const unsigned int readSize = GetMaximumClientRecordSize();

    while (GetErrorStatus().GetSeverity() != ReplayError::eErrorFatal) {
        unsigned char* data = buffer.ExpandBuffer(readSize, false);
        if (data == nullptr) {
            SetErrorStatus(ReplayErrorManager::Get().LogError(
                ReplayError(557, kLoggerSourceLocation, "Null Buffer Returned by AllocateBuffer",
                            ReplayError::eErrorFatal)));
            break;
        }
        if (waitingMessages.Allow() && DebugOutputAttached()) {
            dbgMessage("%s::%s: Waiting \n", DebugAppName(), kTag);
        }
        const int length = m_pipe.read(data, readSize);
        if (length < 1) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Error %s Reading From Pipe\n", DebugAppName(), kTag,
                         std::strerror(errno));
            }
            SetErrorStatus(ReplayErrorManager::Get().LogError(
                ReplayError(568, kLoggerSourceLocation, nullptr, ReplayError::eErrorSevere)));
            break;
        }
        const std::string message(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
        // A status record ends the recording: everything buffered goes out.
        const bool flush = message[0] == '#';
        if (flush && DebugOutputAttached()) {
            dbgError("%s::%s: Flushing Remaining Records\n", DebugAppName(), kTag);
        }
        if (processingMessages.Allow() && DebugOutputAttached()) {
            dbgMessage("%s::%s: Processing message of Length %d\n", DebugAppName(), kTag, length);
        }

        std::string clientName;
        MSTime::MSTimeStruct time;
        unsigned int dataType = 0;
        unsigned int firstNumber = 0;
        unsigned int sequenceNumber = 0;
        unsigned int payloadLength = 0;
        unsigned int payloadStart = 0;
        const bool parsed = ParseClientRecord(message, clientName, time, dataType, firstNumber,
                                              sequenceNumber, payloadLength, payloadStart);
        if (parsed && payloadLength != 0) {
            SetErrorStatus(m_logManager.WriteClientDataToLog(
                clientName, time, dataType, sequenceNumber, message,
                m_clients.load(std::memory_order_relaxed), flush));
        }
        if (parsed && GetErrorStatus().IsError() && DebugOutputAttached()) {
            dbgError("%s::%s: Error returned by WriteClientDataToLog\n", DebugAppName(), kTag);
        }
        if (flush) {
            m_logManager.Disconnect();
        }
        if (finishedMessages.Allow() && DebugOutputAttached()) {
            dbgMessage("%s::%s: Finished Processing message of Length %d\n", DebugAppName(), kTag,
                       length);
        }
        m_messagesProcessed.fetch_add(1, std::memory_order_release);
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: LogWriterThread Thread has Exited\n", DebugAppName(), kTag);
    }
}
