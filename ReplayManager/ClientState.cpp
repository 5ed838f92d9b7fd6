// The client's replay state with its allowed changes, the reports of the
// state to the server, the ping thread, and stopping and shutting down.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "ReplayManager/ClientLogging.h"
#include "ReplayManager/ReplayClientInternal.h"
#include "ReplayManager/DefaultMessageHandlers.h"
#include "ReplayManager/ExecutionTimer.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "ReplayManager/ReplayOutputFiler.h"

using ReplayCore::FileLogger;
using ReplayCore::MSTime;
using ReplayCore::ReplayState;
using ReplayCore::ReplayStateManager;

namespace {

// Area handed to ReplayComplete for the closing text of a replay.
constexpr unsigned int kReplayCompleteTextSize = 128;
// Longest argument text of a state report.
constexpr unsigned int kStateTextMaximum = 170;
constexpr unsigned int kStateArgumentArea = 196;
// A recording block at least this old is sent in place of a ping.
constexpr int64_t kPingBlockAge = 2000;

std::atomic<unsigned int> g_firstPauseMs{2000};
std::atomic<unsigned int> g_roundPauseMs{1800};
constexpr unsigned int kOutOfSlotPauseMs = 50;
constexpr unsigned int kReconnectPauseMs = 500;
// How long the destructor waits for the thread to end.
constexpr int kExitWaitMs = 2000;

bool IsConnectedState(ReplayState state) {
    return state == ReplayCore::eStateStopped || state == ReplayCore::eStateRecord ||
           state == ReplayCore::eStateReplay;
}

const char* ClientName() {
    return g_clientName.c_str();
}

}  // namespace

namespace ReplayClient {

ReplayState ClientStateManager::SetClientState(ReplayState newState,
                                               ReplayMessageHandlerBase* handler) {
    static const char* const kTag = "libReplay::ClientStateManager::SetClientState";
    const ReplayState current = GetState();
    if (newState == current) {
        return current;
    }
    if (newState == ReplayCore::eStateUnknown) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Unrecognized state %u\n", DebugAppName(), kTag,
                     static_cast<unsigned int>(newState));
        }
        return current;
    }
    if (current == ReplayCore::eStateShutDown ||
        (current == ReplayCore::eStateDisconnected && newState != ReplayCore::eStateConnecting)) {
        if (DebugOutputAttached()) {
            dbgWarning("%s::%s: Invalid attempt to Change State from %s to %s\n", DebugAppName(),
                       kTag, ReplayStateManager::GetReplayStateName(current).c_str(),
                       ReplayStateManager::GetReplayStateName(newState).c_str());
        }
        return current;
    }
    if (current == ReplayCore::eStateReplay && newState == ReplayCore::eStateStopped) {
        if (handler != nullptr) {
            char text[kReplayCompleteTextSize] = {};
            handler->ReplayComplete(kReplayCompleteTextSize, text);
            text[kReplayCompleteTextSize - 1] = '\0';
            SendClientState(text, 'w', kReplayCompleteTextSize);
        }
        ReplayOutputFiler::Get().Close(true);
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Changing State from %s to %s\n", DebugAppName(), kTag,
                   ReplayStateManager::GetReplayStateName(current).c_str(),
                   ReplayStateManager::GetReplayStateName(newState).c_str());
    }
    m_state.store(newState, std::memory_order_relaxed);
    if (newState == ReplayCore::eStateShutDown) {
        clientPingThread.Wake();
    }
    // A replay waiting for an item's moment ends its wait at a state change.
    clientReadThread.WakeFromWait();
    SendClientState(nullptr, 'e', kReplayCompleteTextSize);
    return GetState();
}

void ClientStateManager::MarkShutDown() {
    m_state.store(ReplayCore::eStateShutDown, std::memory_order_relaxed);
    clientPingThread.Wake();
    clientReadThread.WakeFromWait();
}

void ClientStateManager::SetClientConnected() {
    if (IsConnectedState(GetState())) {
        return;
    }
    m_state.store(ReplayCore::eStateStopped, std::memory_order_relaxed);
    LogClientMessage(FileLogger::eSeverityInfo, "Client Is Connected");
}

int SendClientState(const char* text, char key, unsigned int limit) {
    static const char* const kTag = "libReplay::ReplayClient::SendClientState";
    if (g_replayClient.Socket() < 1) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Socket\n", DebugAppName(), kTag);
        }
        return -1;
    }
    const ReplayState state = g_clientStateManager.GetState();

    char argument[kStateArgumentArea] = {};
    if (text != nullptr) {
        const size_t length = std::strlen(text);
        if (length >= limit || length > kStateTextMaximum) {
            if (DebugOutputAttached()) {
                // Shows the message bound, not the limit that was exceeded.
                dbgError("%s::%s: Message Length of %d Exceeds Limit\n", DebugAppName(), kTag,
                         static_cast<int>(kStateArgumentArea));
            }
            return -1;
        }
        if (length != 0) {
            std::snprintf(argument, sizeof argument, "%c=%s", key, text);
        }
    }

    const std::string command = ReplayStateManager::GetCommandFromState(state, argument);
    if (command.empty()) {
        return -1;
    }
    const int result =
        SendClientMessage(command.c_str(), static_cast<unsigned int>(command.size()));
    if (result < 0 && DebugOutputAttached()) {
        dbgError("%s::%s: Error Returned by Send\n", DebugAppName(), kTag);
    }
    return result;
}

int PingServer() {
    static const char* const kTag = "libReplay::ReplayClient::PingServer";
    if (g_clientStateManager.GetState() == ReplayCore::eStateRecord) {
        {
            CMutexScopedLock lock(clientWriteMutex);
            const int64_t age = MSTime::CurrentTimeMS().m_timeMilliseconds -
                                g_UDPSendBuffer.GetBlockStartTime().m_timeMilliseconds;
            // Recent data already shows the server that the client is alive.
            if (age < kPingBlockAge) {
                return 0;
            }
            if (!g_UDPSendBuffer.IsEmpty()) {
                if (g_UDPSendBuffer.SendDataBlock() > 0) {
                    if (DebugOutputAttached()) {
                        dbgMessage("%s::%s: Sending Client Data Block\n", DebugAppName(), kTag);
                    }
                    return 0;
                }
                if (DebugOutputAttached()) {
                    dbgError("%s::%s: Nothing Sent by SendDataBlock\n", DebugAppName(), kTag);
                }
            }
        }
        return SendClientState(nullptr, 'e', kReplayCompleteTextSize);
    }
    return SendClientState(nullptr, 'e', kReplayCompleteTextSize);
}

ReplayState GetReplayState() {
    return g_clientStateManager.GetState();
}

void StopClient(int) {
    g_clientStateManager.SetClientState(ReplayCore::eStateStopped,
                                        g_replayMessageHandler.load(std::memory_order_relaxed));
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Client Stopping\n", DebugAppName(),
                   "libReplay::ReplayClient::StopClient");
    }
    ReplayCore::ExecutionTimerManager::Get().DisplayTimes();
}

void ShutDownClient(int notifyServer, char* reason) {
    static const char* const kTag = "libReplay::ReplayClient::ShutDownClient";
    // The error that led here, before the state report can change it.
    const int error = errno;
    g_clientStateManager.SetClientState(ReplayCore::eStateShutDown, nullptr);
    if (g_clientStateManager.GetState() != ReplayCore::eStateShutDown) {
        // A client that never connected (Disconnected) may not change to
        // Shut Down, yet a failed initialisation must end it for good; there
        // is no server to tell.
        g_clientStateManager.MarkShutDown();
    }

    const char* text = reason;
    if (text == nullptr && error != 0) {
        text = std::strerror(error);
    }
    if (DebugOutputAttached()) {
        if (text != nullptr) {
            dbgWarning("%s::%s: Shutting Down Client: %s\n", DebugAppName(), kTag, text);
        } else {
            dbgMessage("%s::%s: Shutting Down Client\n", DebugAppName(), kTag);
        }
    }
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s: Shutting Down Client\n", ClientName());
    std::printf("\n%s: Shutting Down Client\n", ClientName());
    std::fflush(stdout);

    if (notifyServer != 0 && g_replayClient.Socket() >= 1) {
        SendClientState(text, 'e', kReplayCompleteTextSize);
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Shutting Down Client %s\n", DebugAppName(), kTag, ClientName());
    }
    ReplayCore::ExecutionTimerManager::Get().DisplayTimes();
}

}  // namespace ReplayClient

ClientPingThread::ClientPingThread() : CThread(8192, 8, nullptr) {}

ClientPingThread::~ClientPingThread() {
    RequestStop();
}

void ClientPingThread::SetIntervalsForTesting(unsigned int firstPauseMs, unsigned int roundMs) {
    g_firstPauseMs.store(firstPauseMs, std::memory_order_relaxed);
    g_roundPauseMs.store(roundMs, std::memory_order_relaxed);
}

void ClientPingThread::Wake() {
    std::lock_guard<std::mutex> guard(m_wakeMutex);
    m_wake.notify_all();
}

void ClientPingThread::RequestStop() {
    m_stopRequested.store(true, std::memory_order_relaxed);
    Wake();
    if (getThreadId() == CThread::getCurrentID()) {
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kExitWaitMs);
    while (isRunning() && std::chrono::steady_clock::now() < deadline) {
        CThread::sleep(1);
    }
    if (!isRunning()) {
        join();
    }
}

bool ClientPingThread::Ending() const {
    return m_stopRequested.load(std::memory_order_relaxed) ||
           g_clientStateManager.GetState() == ReplayCore::eStateShutDown;
}

bool ClientPingThread::Pause(unsigned int milliseconds) {
    std::unique_lock<std::mutex> lock(m_wakeMutex);
    return !m_wake.wait_for(lock, std::chrono::milliseconds(milliseconds),
                            [this] { return Ending(); });
}

void ClientPingThread::execute() {
    static const char* const kTag = "libReplay::ClientPingThread::execute";
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s: ClientPingThread Started", ClientName());
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: ClientPingThread Started\n", DebugAppName(), kTag);
    }
    Pause(g_firstPauseMs.load(std::memory_order_relaxed));

    while (!Ending()) {
        const ReplayState state = g_clientStateManager.GetState();
        if (IsConnectedState(state)) {
            // Pings go out only in the slot the server gave this client.
            if (ReplayCore::GetTimeSlotFromCurrentTime() != g_UDPSendBuffer.GetTimeSlot()) {
                Pause(kOutOfSlotPauseMs);
                continue;
            }
        } else if (state == ReplayCore::eStateDisconnected ||
                   state == ReplayCore::eStateConnecting) {
            if (g_replayClient.Socket() < 1) {
                int reconnected = 0;
                {
                    CMutexScopedLock lock(clientWriteMutex);
                    reconnected = g_UDPSendBuffer.Reconnect();
                }
                if (reconnected < 1) {
                    Pause(kReconnectPauseMs);
                    continue;
                }
            }
        }

        SetupDefaultMessageHandlers(ClientName());
        if (ReplayClient::PingServer() < 0 &&
            g_clientStateManager.GetState() != ReplayCore::eStateStopped) {
            g_clientStateManager.SetClientState(ReplayCore::eStateConnecting, nullptr);
            if (DebugOutputAttached()) {
                dbgWarning("%s::%s: Error Returned by Ping Server\n", DebugAppName(), kTag);
            }
        }
        Pause(g_roundPauseMs.load(std::memory_order_relaxed));
    }

    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s: ClientPingThread Finished", ClientName());
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: ClientPingThread Finished\n", DebugAppName(), kTag);
    }
}
