// The client's send path: items are packed into one block in place and the
// block goes to the server as a single datagram when it is full, when the
// data type changes, or when it is old and the server's time slot has come.
// This runs on every input item of the host application, so the steady state
// allocates nothing, formats no debug text unless a handler is attached, and
// makes no system call but the send of a block.

#include <cerrno>
#include <cstring>

#include "ReplayManager/ClientLogging.h"
#include "ReplayManager/MessageLimiter.h"
#include "ReplayManager/ReplayClientInternal.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayRuntimeOptions.h"

using ReplayCore::FileLogger;
using ReplayCore::MSTime;

namespace {

// Each of these could repeat for every item; only the first 29 are shown.
ReplayCore::MessageLimiter g_oversizeMessages;
ReplayCore::MessageLimiter g_blockFailedMessages;
ReplayCore::MessageLimiter g_sendingMessages;
ReplayCore::MessageLimiter g_sentMessages;
ReplayCore::MessageLimiter g_convertingMessages;
ReplayCore::MessageLimiter g_writtenMessages;

// Only the first few block headers are logged.
constexpr unsigned int kLoggedBlockHeaders = 4;
// Room for the separator in front of a further item: 0xDE, time, ':'.
constexpr unsigned int kSeparatorArea = 20;
// Bytes added per item besides its data when estimating a block's growth.
constexpr unsigned int kItemOverheadEstimate = 12;
// A status record: at most 195 formatted characters plus the trailer.
constexpr unsigned int kMessageArea = 205;
constexpr unsigned int kMessageBound = 196;

const char* ClientName() {
    return g_clientName.c_str();
}

}  // namespace

UDPSendBuffer::UDPSendBuffer()
    : m_outgoingDataBuffer("UDPSendBuffer", 0, 65535),
      timeSlot(ReplayCore::GetTimeSlotFromCurrentTime()),
      blockStartTime(MSTime::CurrentTimeMS()),
      m_dataType(kDataTypeUnspecified) {}

int UDPSendBuffer::SendClientData(const void* data, unsigned int nBytes, bool immediate,
                                  unsigned int dataType) {
    static const char* const kTag = "libReplay::UDPSendBuffer::SendClientData";
    CMutexScopedLock lock(clientWriteMutex);

    const ReplayCore::ReplayState state = g_clientStateManager.GetState();
    if (state != ReplayCore::eStateRecord && state != ReplayCore::eStateConnecting) {
        return 0;
    }
    if (g_replayClient.Socket() < 1 && Reconnect() < 1) {
        return -1;
    }
    if (blockCapacity == 0) {
        // No block was ever started (the first connection failed): start one
        // so that the size limits are in force.
        InitializeMemoryBuffer(MSTime::CurrentTimeMS(), dataType, -1);
    }

    if (nBytes > recordLimit) {
        if (g_oversizeMessages.Allow() && DebugOutputAttached()) {
            dbgWarning("%s::%s: Client Buffer size =%d; cannot append %d bytes\n", DebugAppName(),
                       kTag, static_cast<int>(m_blockBufferPos), static_cast<int>(nBytes));
        }
        // One oversized item ends the recording.
        g_clientStateManager.SetClientState(ReplayCore::eStateStopped, nullptr);
        return -1;
    }

    bool typeChanged = false;
    if (m_dataType == kDataTypeUnspecified) {
        m_dataType = dataType;
    } else if (m_dataType != dataType) {
        ReplayClient::LogClientMessage(FileLogger::eSeverityWarning,
                                       "DataType changed from %d to %d",
                                       static_cast<int>(m_dataType), static_cast<int>(dataType));
        typeChanged = true;
        m_dataType = dataType;
    }

    if (immediate) {
        return SendDataImmediate(data, nBytes);
    }

    unsigned int estimate = m_blockBufferPos + kItemOverheadEstimate + nBytes;
    if (dataType == kDataTypeBinary) {
        estimate += nBytes / 2;  // Ascii7 growth
    }
    const MSTime::MSTimeStruct now = MSTime::CurrentTimeMS();
    const int64_t age = now.m_timeMilliseconds - blockStartTime.m_timeMilliseconds;

    if (IsEmpty()) {
        // The block's time is that of its first item, however short the
        // pause since the last block was sent: an empty block is always
        // restarted now.
        InitializeMemoryBuffer(now, kDataTypeUnspecified, -1);
        const int appended = AppendDataToBuffer(data, nBytes);
        return appended < 0 ? appended : 0;
    }

    // An old block waits for the slot the server gave this client, so that
    // the clients' blocks do not all arrive at once. A block is also due
    // when the item would not fit behind its records (the estimate above can
    // fall short by a few bytes of separator): the item then starts the next
    // block instead of being refused.
    const bool due =
        typeChanged || estimate >= recordLimit || !ItemFits(nBytes, now) ||
        (age > kBlockMaximumAge && ReplayCore::GetTimeSlotFromTime(now) == GetTimeSlot());
    if (!due) {
        const int appended = AppendDataToBuffer(data, nBytes);
        return appended < 0 ? appended : 0;
    }

    const int sent = SendDataBlock();
    if (sent >= 0) {
        // A negative result tells the caller that its item was not taken,
        // although the block before it went out.
        const int appended = AppendDataToBuffer(data, nBytes);
        return appended < 0 ? appended : sent;
    }
    // The item is lost with the failed send.
    const int error = errno;
    if (g_clientStateManager.GetState() != ReplayCore::eStateStopped) {
        if (g_blockFailedMessages.Allow() && DebugOutputAttached()) {
            dbgMessage("%s::%s: %s:SendDataBlock Failed, Error=%s\n", DebugAppName(), kTag,
                       ClientName(), std::strerror(error));
        }
        g_clientStateManager.SetClientState(ReplayCore::eStateConnecting, nullptr);
    }
    errno = error;
    return sent;
}

unsigned int UDPSendBuffer::InitializeMemoryBuffer(MSTime::MSTimeStruct startTime,
                                                   unsigned int dataType, int sequence) {
    static const char* const kTag = "libReplay::UDPSendBuffer::InitializeMemoryBuffer";
    if (dataType != kDataTypeUnspecified) {
        m_dataType = dataType;
    }
    blockCapacity = kBlockCapacity;
    // One byte more than a block, for the terminator the checksum code needs.
    if (m_outgoingDataBuffer.Capacity() <= blockCapacity) {
        m_outgoingDataBuffer.ExpandBuffer(blockCapacity + 1, true);
    }
    recordLimit = blockCapacity - kBlockReserve;

    if (startTime.m_timeMilliseconds < blockStartTime.m_timeMilliseconds && DebugOutputAttached()) {
        dbgWarning("%s::%s: Block StartTime=%s; Current Time=%s\n", DebugAppName(), kTag,
                   blockStartTime.ToString().c_str(), startTime.ToString().c_str());
    }
    blockStartTime = startTime;
    if (m_dataType == kDataTypeUnspecified) {
        FileLogger::LogAssertion(1708, ReplayClient::kClientSourceFile,
                                 "kDataTypeUnspecified != m_dataType");
    }

    char typeCharacter = '"';
    if (!ReplayCore::DataBlockTypeCharacter(m_dataType, typeCharacter) && DebugOutputAttached()) {
        dbgError("%s::%s: Unrecognized DataType %d\n", DebugAppName(), kTag,
                 static_cast<int>(m_dataType));
    }
    if (sequence >= 0) {
        blockSequence = static_cast<unsigned int>(sequence);
    }

    char* block = reinterpret_cast<char*>(m_outgoingDataBuffer.Get());
    headerLength = 0;
    if (block != nullptr) {
        headerLength =
            ReplayCore::WriteDataBlockHeader(block, m_outgoingDataBuffer.Capacity(), typeCharacter,
                                             startTime, ClientName(), blockSequence);
    }
    m_blockBufferPos = headerLength;

    ++blocksInitialised;
    if (blocksInitialised <= kLoggedBlockHeaders && block != nullptr) {
        ReplayClient::LogClientMessage(FileLogger::eSeverityInfo,
                                       "Initializing Memory Block to %s; Initial Length=%d", block,
                                       static_cast<int>(headerLength));
    }
    checksumAppended = false;
    return headerLength;
}

int UDPSendBuffer::AppendDataToBuffer(const void* data, unsigned int nBytes) {
    static const char* const kTag = "libReplay::UDPSendBuffer::AppendDataToBuffer";
    if (nBytes == 0) {
        return 0;
    }
    unsigned char* block = m_outgoingDataBuffer.Get();
    if (block == nullptr) {
        FileLogger::LogAssertion(1551, ReplayClient::kClientSourceFile, "pBlockBuffer");
        ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                       "m_outgoingDataBuffer.Get() Failed");
        g_clientStateManager.SetClientState(ReplayCore::eStateStopped, nullptr);
        return -1;
    }
    const unsigned int capacity = m_outgoingDataBuffer.Capacity();
    // Where the block ends now: a refused item leaves no separator behind.
    const unsigned int itemStart = m_blockBufferPos;

    if (!IsEmpty()) {
        const unsigned int room = capacity - m_blockBufferPos < kSeparatorArea
                                      ? capacity - m_blockBufferPos
                                      : kSeparatorArea;
        m_blockBufferPos += ReplayCore::WriteItemSeparator(
            reinterpret_cast<char*>(block) + m_blockBufferPos, room, MSTime::CurrentTimeMS());
    }

    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    unsigned int length = nBytes;
    if (m_dataType != kDataTypeBinary) {
        // The fill limit keeps the record, checksum trailer included, within
        // the largest record a server accepts.
        if (m_blockBufferPos + nBytes >= recordLimit) {
            ReplayClient::LogClientMessage(
                FileLogger::eSeverityError,
                "Cannot Append %d Bytes to Buffer, Current Size=%d, Limit=%d",
                static_cast<int>(nBytes), static_cast<int>(m_blockBufferPos),
                static_cast<int>(recordLimit));
            RestoreBlockEnd(itemStart);
            return -1;
        }
    } else {
        if (g_convertingMessages.Allow() && DebugOutputAttached()) {
            dbgMessage("%s::%s: Converting %d Bytes to Ascii7\n", DebugAppName(), kTag,
                       static_cast<int>(nBytes));
        }
        unsigned int encodedLength = 0;
        const char* encoded =
            Ascii7Encoder::ConvertToAscii7(m_encoder, bytes, nBytes, encodedLength);
        if (encoded == nullptr || encodedLength == 0) {
            ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                           "Conversion to Ascii7 Failed");
            RestoreBlockEnd(itemStart);
            return -1;
        }
        if (m_blockBufferPos + encodedLength >= recordLimit) {
            ReplayClient::LogClientMessage(
                FileLogger::eSeverityError,
                "Cannot Append %d Ascii7 Bytes to Buffer, Current Size=%d, Limit=%d",
                static_cast<int>(encodedLength), static_cast<int>(m_blockBufferPos),
                static_cast<int>(recordLimit));
            RestoreBlockEnd(itemStart);
            return -1;
        }
        bytes = reinterpret_cast<const unsigned char*>(encoded);
        length = encodedLength;
    }

    std::memcpy(block + m_blockBufferPos, bytes, length);
    m_blockBufferPos += length;
    block[m_blockBufferPos] = '\0';  // the checksum is appended to a terminated text
    if (m_blockBufferPos > capacity) {
        FileLogger::LogAssertion(1620, ReplayClient::kClientSourceFile,
                                 "m_blockBufferPos <= m_outgoingDataBuffer.Capacity()");
    }
    return static_cast<int>(length);
}

void UDPSendBuffer::RestoreBlockEnd(unsigned int end) {
    m_blockBufferPos = end;
    unsigned char* block = m_outgoingDataBuffer.Get();
    if (block != nullptr) {
        block[end] = '\0';
    }
}

bool UDPSendBuffer::ItemFits(unsigned int nBytes, const MSTime::MSTimeStruct& now) const {
    // Ascii7 turns n bytes into ceil(8n / 7) characters.
    const unsigned int needed = m_dataType == kDataTypeBinary ? (8 * nBytes + 6) / 7 : nBytes;
    if (IsEmpty()) {
        return m_blockBufferPos + needed < recordLimit;
    }
    // The separator is at most kSeparatorArea - 1 bytes; its exact length
    // is formatted only near the limit.
    if (m_blockBufferPos + needed + kSeparatorArea - 1 < recordLimit) {
        return true;
    }
    char separator[kSeparatorArea];
    const unsigned int separatorLength =
        ReplayCore::WriteItemSeparator(separator, kSeparatorArea, now);
    return m_blockBufferPos + separatorLength + needed < recordLimit;
}

int UDPSendBuffer::SendDataBlock() {
    static const char* const kTag = "libReplay::UDPSendBuffer::SendDataBlock";
    if (IsEmpty()) {
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: Ignoring Empty Record\n", DebugAppName(), kTag);
        }
        return 0;
    }
    char* block = reinterpret_cast<char*>(m_outgoingDataBuffer.Get());
    if (block == nullptr) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: pBlockBuffer is NULL\n", DebugAppName(), kTag);
        }
        return -1;
    }
    if (g_sendingMessages.Allow() && DebugOutputAttached()) {
        dbgMessage("%s::%s: Sending %d Bytes; Buffer location=%x\n", DebugAppName(), kTag,
                   static_cast<int>(m_blockBufferPos),
                   static_cast<unsigned int>(reinterpret_cast<uintptr_t>(block)));
    }

    unsigned int checksum = 0;
    if (!checksumAppended) {
        const int length = ReplayCore::AppendChecksum(block, m_blockBufferPos,
                                                      m_outgoingDataBuffer.Capacity(), checksum);
        if (length < 0) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Error Appending Checksum to Buffer\n", DebugAppName(), kTag);
            }
            return -1;
        }
        m_blockBufferPos = static_cast<unsigned int>(length);
        checksumAppended = true;
        if (m_blockBufferPos > m_outgoingDataBuffer.Capacity()) {
            FileLogger::LogAssertion(1516, ReplayClient::kClientSourceFile,
                                     "m_blockBufferPos <= m_outgoingDataBuffer.Capacity()");
        }
    }

    const int sent = g_replayClient.Send(block, m_blockBufferPos);
    const int error = errno;
    if (g_sentMessages.Allow() && DebugOutputAttached()) {
        dbgMessage("%s::%s: %d Bytes sent; Checksum=%x\n", DebugAppName(), kTag, sent, checksum);
    }
    // Every attempt uses up a number, so the server sees failed blocks as gaps.
    ++blockSequence;

    if (sent < 0) {
        // The block stays as it is, trailer included, and goes out again at
        // the next due send.
        ReplayClient::LogClientMessage(FileLogger::eSeverityError, "%s: Send Failed; Error = %s",
                                       ClientName(), std::strerror(error));
        ReplayClient::Disconnect();
        errno = error;
        return -1;
    }
    InitializeMemoryBuffer(MSTime::CurrentTimeMS(), kDataTypeUnspecified, -1);
    return sent;
}

int UDPSendBuffer::SendDataImmediate(const void* data, unsigned int nBytes) {
    static const char* const kTag = "libReplay::UDPSendBuffer::SendDataImmediate";
    if (!IsEmpty()) {
        // Immediate sends are meant for the first item only; anything
        // buffered is discarded.
        FileLogger::LogAssertion(1457, ReplayClient::kClientSourceFile, "IsEmpty()");
    }
    InitializeMemoryBuffer(MSTime::CurrentTimeMS(), kDataTypeUnspecified, -1);
    const int appended = AppendDataToBuffer(data, nBytes);
    if (appended < 0) {
        return appended;  // nothing to send: the item was refused
    }
    const int result = SendDataBlock();

    if (g_writtenMessages.Allow() && DebugOutputAttached()) {
        dbgMessage("%s::%s: %s: %d Bytes Written\n", DebugAppName(), kTag, ClientName(), result);
    }
    if (result == 0) {
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: Failed to Connect to Server\n", DebugAppName(), kTag);
        }
        FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s: Failed to Connect to Server",
                              ClientName());
    }
    if (result > 0 && g_clientStateManager.GetState() == ReplayCore::eStateConnecting) {
        g_clientStateManager.SetClientConnected();
    }
    return result;
}

int UDPSendBuffer::Reconnect() {
    const ReplayCore::ReplayState state = g_clientStateManager.GetState();
    if (state == ReplayCore::eStateStopped || state == ReplayCore::eStateRecord ||
        state == ReplayCore::eStateReplay) {
        return 0;
    }
    const MSTime::MSTimeStruct now = MSTime::CurrentTimeMS();
    const int64_t interval = ReplayRuntimeOptions::Get().GetIntegerValue(eReconnectInterval);
    if (now.m_timeMilliseconds - lastReconnectAttempt.m_timeMilliseconds < interval) {
        return 0;
    }
    ReplayClient::LogClientMessage(FileLogger::eSeverityInfo, "Attempting Server Reconnect");
    lastReconnectAttempt = now;

    if (g_replayClient.Socket() < 1) {
        if (g_replayClient.ConnectionType() == 0) {
            ReplayClient::LogClientMessage(FileLogger::eSeverityInfo,
                                           "Reconnect Failed; Connection Type Not Specified");
            return -1;
        }
        const std::string address = ReplayRuntimeOptions::Get().GetStringValue(eServerIP);
        ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                       "Constructing synchronous connection to %s",
                                       address.c_str());
        g_replayClient.Open(address.c_str(), ReplayClient::kServerPort);
        if (g_replayClient.Socket() < 1) {
            ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                           "Failed to Reconnect to %s;Error = %s", address.c_str(),
                                           std::strerror(errno));
            return -1;
        }
    }

    const int result = ReplayClient::SendClientMessage(nullptr, 0);
    if (result > 0) {
        g_clientStateManager.SetClientConnected();
        ReplayClient::LogClientMessage(FileLogger::eSeverityInfo, "Reconnection Succeeded");
        return result;
    }
    ReplayClient::LogClientMessage(FileLogger::eSeverityError, "Reconnect Attempt Failed");
    return -1;
}

namespace ReplayClient {

int SendClientData(const void* data, unsigned int nBytes, bool immediate, unsigned int dataType) {
    return g_UDPSendBuffer.SendClientData(data, nBytes, immediate, dataType);
}

int SendClientMessage(const char* text, unsigned int nBytes) {
    static const char* const kTag = "libReplay::ReplayClient::SendClientMessage";
    if (g_replayClient.Socket() < 1) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Socket\n", DebugAppName(), kTag);
        }
        return -1;
    }
    // A fresh area per call: the callers (initialisation, the ping thread,
    // reconnection and state reports from the read thread) may overlap.
    char message[kMessageArea] = {};
    const MSTime::MSTimeStruct now = MSTime::CurrentTimeMS();

    const bool withText = text != nullptr && nBytes != 0;
    if (withText && nBytes > kMessageBound - 1) {
        FileLogger::LogAssertion(1132, kClientSourceFile, "nBytes < 196");
    }
    const unsigned int length =
        ReplayCore::WriteStatusRecord(message, kMessageBound, now, ClientName(),
                                      withText ? text : nullptr, withText ? nBytes : 0);
    unsigned int checksum = 0;
    int fullLength = ReplayCore::AppendChecksum(message, length, kMessageArea, checksum);
    if (fullLength < 1) {
        FileLogger::LogAssertion(1137, kClientSourceFile, "fullLength > 0");
        fullLength = static_cast<int>(std::strlen(message));
    }

    const int sent = g_replayClient.Send(message, static_cast<unsigned int>(fullLength));
    if (sent < 0 && g_clientStateManager.GetState() != ReplayCore::eStateStopped) {
        const int error = errno;
        g_clientStateManager.SetClientState(ReplayCore::eStateStopped, nullptr);
        if (DebugOutputAttached()) {
            dbgError("%s::%s: msg=%s\n", DebugAppName(), kTag, std::strerror(error));
        }
        errno = error;
    }
    return sent;
}

int Disconnect() {
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Client Disconnecting\n", DebugAppName(),
                   "libReplay::ReplayClient::ShutDownClient");
    }
    return g_clientStateManager.SetClientState(ReplayCore::eStateConnecting, nullptr);
}

}  // namespace ReplayClient
