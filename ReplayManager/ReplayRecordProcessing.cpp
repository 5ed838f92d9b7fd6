// Replay of the records the server sends back: each record is checked, cut
// into its items, and every item is held back until the replay clock reaches
// its recorded moment, then handed to the client's callback on the read
// thread. Timing errors are measured and reported, never corrected.

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "ReplayManager/ClientLogging.h"
#include "ReplayManager/MessageLimiter.h"
#include "ReplayManager/ReplayClientInternal.h"
#include "ReplayManager/Ascii7.h"
#include "libreplay/server/ClientRecord.h"
#include "ReplayManager/ExecutionTimer.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayError.h"
#include "ReplayManager/ReplayOutputFiler.h"

using ReplayCore::FileLogger;
using ReplayCore::MSTime;

namespace {

const char* const kTag = "libReplay::SynchronousReadThread::ProcessReplayRecord";

// Items this close ahead of the clock are delivered at once.
constexpr int64_t kSleepThresholdMs = 10;
// An item further ahead than this is not waited for.
constexpr int64_t kLargestSleepMs = 60000;
// Lateness (or oversleeping) up to this much is normal and not reported.
constexpr int64_t kToleranceMs = 50;
constexpr size_t kMinimumItemLength = 2;
// Bytes after the last item's end: the checksum field without its newline.
constexpr unsigned int kItemCutFromEnd = 8;
constexpr size_t kStatusTextSize = 64;
constexpr unsigned int kStatusReportLimit = 128;
constexpr unsigned int kMissedReportLimit = 100;
constexpr size_t kOutputLineSize = 64;
constexpr size_t kTimerNameSize = 64;
constexpr int kInvalidLengthLine = 468;
constexpr int kLoggingLevelVerbose = 4;

ReplayCore::MessageLimiter g_processingMessages;

std::atomic<ReplayClient::SynchronousReadThread::SleepFunction> g_sleepFunction{nullptr};

std::string TimeText(int64_t milliseconds) {
    return MSTime::MSTimeStruct(0, milliseconds).ToString();
}

bool Verbose() {
    return g_LoggingLevel.load(std::memory_order_relaxed) > kLoggingLevelVerbose;
}

bool IsReplaying() {
    return g_clientStateManager.GetState() == ReplayCore::eStateReplay;
}

}  // namespace

namespace ReplayClient {

// What one record's items share, and the timing statistics gathered over
// them.
struct SynchronousReadThread::ReplayItemContext {
    MSTime::MSTimeStruct recordTime;
    unsigned int dataType = 0;
    bool initialisation = false;
    int64_t replayTime = 0;
    int64_t initialError = 0;
    int64_t lastError = 0;
    int64_t largestError = 0;
    int64_t errorSum = 0;
    int64_t itemCount = 0;
    int64_t lastTimestamp = 0;
    int delivered = 0;
    char statusText[kStatusTextSize] = {};
};

void SynchronousReadThread::SetSleepForTesting(SleepFunction sleep) {
    g_sleepFunction.store(sleep, std::memory_order_relaxed);
}

bool SynchronousReadThread::WaitForItem(unsigned int milliseconds) {
    auto interrupted = [this] { return Ending() || !IsReplaying(); };
    const SleepFunction injectedSleep = g_sleepFunction.load(std::memory_order_relaxed);
    if (injectedSleep != nullptr) {
        injectedSleep(milliseconds);
    } else {
        std::unique_lock<std::mutex> lock(m_waitMutex);
        m_waitWake.wait_for(lock, std::chrono::milliseconds(milliseconds), interrupted);
    }
    return !interrupted();
}

int64_t SynchronousReadThread::ReplayTimeMs() const {
    return m_replayClock.ExecutionTimeMS().m_timeMilliseconds +
           m_latencyMs.load(std::memory_order_relaxed);
}

int SynchronousReadThread::ProcessReplayRecord(char* record, int length) {
    if (g_processingMessages.Allow() && DebugOutputAttached()) {
        dbgMessage("%s::%s: Processing message, Length=%d\n", DebugAppName(), kTag, length);
    }
    if (!IsReplaying()) {
        return 0;
    }
    if (length < 1 || record == nullptr) {
        ReplayErrorManager::Get().LogError(
            ReplayError(kInvalidLengthLine, kClientSourceFile, nullptr, ReplayError::eErrorSevere));
        g_clientStateManager.SetClientState(ReplayCore::eStateStopped, nullptr);
        return -1;
    }

    char timerName[kTimerNameSize];
    std::snprintf(timerName, sizeof timerName, "ClientExecutionThread:%s", g_clientName.c_str());
    ReplayCore::ExecutionTimer& timer =
        ReplayCore::ExecutionTimerManager::Get().GetTimer(timerName);
    timer.Start();
    // Everything after the first NUL is ignored: records are text.
    const unsigned int textLength =
        static_cast<unsigned int>(strnlen(record, static_cast<size_t>(length)));
    const int delivered = ProcessCheckedRecord(record, textLength);
    timer.Stop();
    return delivered;
}

int SynchronousReadThread::ProcessCheckedRecord(char* record, unsigned int textLength) {
    if (!ReplayCore::CheckSumValid(record, textLength)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Skipping Record due to CheckSum error\n", DebugAppName(), kTag);
        }
        FileLogger::LogToFile(FileLogger::eSeverityError, "Bad Checksum");
        SendClientState("Checksum Error", 'w', kStatusReportLimit);
        return 0;
    }

    const std::string text(record, textLength);
    std::string clientName;
    ReplayItemContext context;
    unsigned int firstNumber = 0;
    unsigned int sequenceNumber = 0;
    unsigned int payloadLength = 0;
    unsigned int payloadStart = 0;
    if (!ParseClientRecord(text, clientName, context.recordTime, context.dataType, firstNumber,
                           sequenceNumber, payloadLength, payloadStart)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Failed to Parse Client Record\n", DebugAppName(), kTag);
        }
        return 0;
    }
    if (clientName != g_clientName) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Incorrect Client Name of %s on Input Record\n", DebugAppName(), kTag,
                     clientName.c_str());
        }
        return 0;
    }

    // Only records that carry a block number are numbered; block 0 is the
    // client's initialisation record.
    const size_t numbersField = text.find(':') + 1 + clientName.size() + 1;
    const bool numbered = numbersField < text.size() && text[numbersField] == '!';
    context.initialisation = numbered && sequenceNumber == 0;
    if (sequenceNumber > m_lastSequenceNumber) {
        if (m_lastSequenceNumber != 0 && sequenceNumber != m_lastSequenceNumber + 1) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Sequence Number of %u Unexpected Following %u\n", DebugAppName(),
                         kTag, sequenceNumber, m_lastSequenceNumber);
            }
            m_missedRecords += sequenceNumber - m_lastSequenceNumber - 1;
            const std::string missed = std::to_string(m_missedRecords);
            SendClientState(missed.c_str(), 'd', kMissedReportLimit);
        }
        m_lastSequenceNumber = sequenceNumber;
    }

    const int64_t recordTime = context.recordTime.m_timeMilliseconds;
    context.replayTime = ReplayTimeMs();
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Message Received: Timestamp=%s; Replay Time=%s\n", DebugAppName(), kTag,
                   context.recordTime.ToString().c_str(), TimeText(context.replayTime).c_str());
    }
    if (context.replayTime - recordTime > kToleranceMs) {
        if (DebugOutputAttached()) {
            const long long original = static_cast<long long>(
                recordTime + m_replayClock.GetOffsetTime().m_timeMilliseconds);
            dbgWarning(
                "%s::%s: Warning: Message Received, Replay time of %s Exceeds Timestamp of "
                "%s; Original Timestamp = %lld\n",
                DebugAppName(), kTag, TimeText(context.replayTime).c_str(),
                context.recordTime.ToString().c_str(), original);
        }
        context.initialError = recordTime - context.replayTime;
    }

    // Items end at each separator and 8 bytes before the record's end: the
    // checksum field when the newline is missing, one byte into it when not.
    const unsigned int end =
        textLength >= payloadStart + kItemCutFromEnd ? textLength - kItemCutFromEnd : payloadStart;
    char* const stop = record + end;
    char* itemStart = record + payloadStart;
    bool firstItem = true;
    for (;;) {
        char* separator = static_cast<char*>(std::memchr(itemStart, ReplayCore::kItemSeparator,
                                                         static_cast<size_t>(stop - itemStart)));
        if (!ReplayItem(context, itemStart, separator != nullptr ? separator : stop, firstItem) ||
            separator == nullptr) {
            break;
        }
        itemStart = separator + 1;
        firstItem = false;
    }

    if (context.itemCount > 0 && DebugOutputAttached()) {
        dbgMessage(
            "%s::%s: Message Completed:Replay Time=%s; Average Timing Error: %d; Initial "
            "Error:%lld; Final Error:%lld; MaxError:%d; Last TimeStamp:%s\n",
            DebugAppName(), kTag, TimeText(context.replayTime).c_str(),
            static_cast<int>(context.errorSum / context.itemCount),
            static_cast<long long>(context.initialError), static_cast<long long>(context.lastError),
            static_cast<int>(context.largestError), TimeText(context.lastTimestamp).c_str());
    }
    if (IsReplaying()) {
        SendClientState(context.statusText, 'w', kStatusReportLimit);
    } else {
        // Sequence tracking starts again with the next replay.
        m_lastSequenceNumber = 0;
        m_missedRecords = 0;
    }
    return context.delivered;
}

bool SynchronousReadThread::ReplayItem(ReplayItemContext& context, char* begin, char* end,
                                       bool firstItem) {
    MSTime::MSTimeStruct timestamp = context.recordTime;
    char* data = begin;
    if (!firstItem) {
        char* colon = static_cast<char*>(std::memchr(begin, ':', static_cast<size_t>(end - begin)));
        if (colon == nullptr) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Time not found in input string\n", DebugAppName(), kTag);
            }
            return true;
        }
        const std::string timeText(begin, colon);
        timestamp = MSTime::MSTimeStruct(timeText);
        if (timestamp.m_timeMilliseconds == 0 && DebugOutputAttached()) {
            dbgError("%s::%s: Cannot Parse Time String  %s\n", DebugAppName(), kTag,
                     timeText.c_str());
        }
        data = colon + 1;
    }
    // The item becomes a terminated text for the callback; its separator has
    // been found already.
    *end = '\0';
    const int64_t itemTime = timestamp.m_timeMilliseconds;

    if (!m_clockSet.load(std::memory_order_relaxed)) {
        // Without a clock command the first item's time becomes the clock.
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: Setting Clock to %s; Latency = %s \n", DebugAppName(), kTag,
                       timestamp.ToString().c_str(), GetLatency().ToString().c_str());
        }
        m_replayClock.SetStartTime(timestamp);
        char line[kOutputLineSize];
        std::snprintf(line, sizeof line, "OFFSET: %lld\nCURRENT TIME: %s\n",
                      static_cast<long long>(m_replayClock.GetOffsetTime().m_timeMilliseconds),
                      timestamp.ToString().c_str());
        ReplayOutputFiler::Get().Write(line);
        m_clockSet.store(true, std::memory_order_relaxed);
    }
    if (!IsReplaying()) {
        return false;
    }

    context.replayTime = ReplayTimeMs();
    const int64_t delta = itemTime - context.replayTime;
    bool slept = false;
    int64_t sleepStart = 0;
    int64_t sleptTime = 0;
    if (delta > kSleepThresholdMs) {
        if (Verbose() && DebugOutputAttached()) {
            dbgMessage("%s::%s: Log Time=%s, Replay Time=%s; deltaTime=%s\n", DebugAppName(), kTag,
                       timestamp.ToString().c_str(), TimeText(context.replayTime).c_str(),
                       TimeText(delta).c_str());
        }
        if (delta > kLargestSleepMs) {
            // A record this far ahead of the clock is not waited for.
            std::snprintf(context.statusText, sizeof context.statusText,
                          "Sleep time = %s, Ignoring ", TimeText(delta).c_str());
            if (DebugOutputAttached()) {
                dbgWarning("%s::%s: %s\n", DebugAppName(), kTag, context.statusText);
            }
            return false;
        }
        // One millisecond short: the clock's resolution makes a full-length
        // sleep land late more often than early.
        sleepStart = context.replayTime;
        if (!WaitForItem(static_cast<unsigned int>(delta - 1))) {
            // Stopped, replay ended or the client is shutting down meanwhile:
            // the item and the rest of its record are not delivered.
            return false;
        }
        context.replayTime = ReplayTimeMs();
        sleptTime = context.replayTime - sleepStart;
        slept = true;
        if (sleptTime > delta - 1 + kToleranceMs && DebugOutputAttached()) {
            dbgWarning("%s::%s: %s: Sleep Time of %s exceeds requested value of %s\n",
                       DebugAppName(), kTag, g_clientName.c_str(), TimeText(sleptTime).c_str(),
                       TimeText(delta - 1).c_str());
        }
        if (Verbose() && DebugOutputAttached()) {
            dbgMessage(
                "%s::%s: TimeStamp=%s, Replay Time=%s; Sleep Start=%s; deltaTime = %s; "
                "slept %s seconds\n",
                DebugAppName(), kTag, timestamp.ToString().c_str(),
                TimeText(context.replayTime).c_str(), TimeText(sleepStart).c_str(),
                TimeText(delta).c_str(), TimeText(sleptTime).c_str());
        }
    }

    const int64_t error = std::llabs(context.replayTime - itemTime);
    if (error > kToleranceMs && error > context.largestError) {
        context.largestError = error;
        if (DebugOutputAttached()) {
            if (!slept) {
                dbgWarning("%s::%s: Warning: TimeStamp=%s, Replay Time=%s; error = %lld\n",
                           DebugAppName(), kTag, timestamp.ToString().c_str(),
                           TimeText(context.replayTime).c_str(), static_cast<long long>(error));
            } else {
                dbgWarning(
                    "%s::%s: Warning: TimeStamp=%s, Replay Time=%s; Sleep Start=%s; "
                    "deltaTime = %s; error = %lld; slept %s seconds\n",
                    DebugAppName(), kTag, timestamp.ToString().c_str(),
                    TimeText(context.replayTime).c_str(), TimeText(sleepStart).c_str(),
                    TimeText(delta).c_str(), static_cast<long long>(error),
                    TimeText(sleptTime).c_str());
            }
        }
    }
    context.lastError = error;
    context.lastTimestamp = itemTime;
    ++context.itemCount;
    context.errorSum += error;

    const size_t dataLength = static_cast<size_t>(end - data);
    if (dataLength < kMinimumItemLength) {
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: Ignoring Empty Record\n", DebugAppName(), kTag);
        }
        return true;
    }

    void* payload = data;
    unsigned int payloadLength = static_cast<unsigned int>(dataLength);
    if (context.dataType == kDataTypeBinary || context.dataType == kDataTypeAsciiEncodedBinary) {
        const unsigned int decoded = Ascii7Decoder::DecodeAscii7(
            reinterpret_cast<const unsigned char*>(data), payloadLength, m_decodeBuffer);
        if (decoded < 1) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Error Decoding Ascii7 Data Buffer\n", DebugAppName(), kTag);
            }
            return false;
        }
        payload = m_decodeBuffer.Get();
        payloadLength = decoded;
    }

    ReplayMessageHandlerBase* handler = g_replayMessageHandler.load(std::memory_order_relaxed);
    if (handler == nullptr) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Client Message Handler Not Set!\n", DebugAppName(), kTag);
        }
        g_clientStateManager.SetClientState(ReplayCore::eStateStopped, nullptr);
        return true;
    }
    // The callback sees the item's time on the client's own clock.
    const int64_t clientTime = itemTime + m_replayClock.GetOffsetTime().m_timeMilliseconds;
    handler->DoCallback(payload, payloadLength, static_cast<unsigned int>(clientTime),
                        context.initialisation);
    ++context.delivered;
    return true;
}

}  // namespace ReplayClient
