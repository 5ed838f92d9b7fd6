// The process-wide replay client: its objects, created at load time in the
// order below and destroyed in reverse at exit, and its initialisation.

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>

#include "ReplayManager/ClientLogging.h"
#include "ReplayManager/ReplayClientInternal.h"
#include "ReplayManager/DefaultMessageHandlers.h"
#include "ReplayManager/ExecutionTimer.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayError.h"
#include "ReplayManager/ReplayOutputFiler.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "reference/src/process_signals.h"

using ReplayCore::FileLogger;
using ReplayCore::MSTime;

// Construction order matters: each object may use the ones before it. They
// live until the process ends, never destroyed: a client thread that has not
// ended by exit (a callback that does not return) keeps using them.
std::string& g_clientName = *new std::string("clientNameNotSet");
CMutex& clientWriteMutex = *new CMutex;
UDPSocketClient& g_replayClient = UDPSocketClient::Get();
ReplayClient::ClientStateManager g_clientStateManager;
UDPSendBuffer& g_UDPSendBuffer = *new UDPSendBuffer;
ClientPingThread& clientPingThread = *new ClientPingThread;
ReplayClient::SynchronousReadThread& clientReadThread = *new ReplayClient::SynchronousReadThread;

std::atomic<ReplayClient::ReplayMessageHandlerBase*> g_replayMessageHandler{nullptr};
uint32_t g_nameLength = 0;
std::atomic<unsigned int> g_LoggingLevel{0};
sigset_t signal_mask;

namespace {

const char* const kInitializeTag = "libReplay::ReplayClient::InitializeReplayClient";

const char* ClientName() {
    return g_clientName.c_str();
}

// Replay is switched off: say so everywhere once and end the client, so that
// every later call returns at once.
void ReportReplayDisabled() {
    const std::string cookie = ReplayRuntimeOptions::Get().GetStringValue(eReplayEnabledCookie);
    if (DebugOutputAttached()) {
        dbgError("%s::%s: %s not found; Replay System Disabled\n", DebugAppName(), kInitializeTag,
                 cookie.c_str());
    }
    std::printf("\n%s not found; Replay System Disabled", cookie.c_str());
    std::fflush(stdout);
    FileLogger::LogToFile(FileLogger::eSeverityError, "%s not found; Replay System Disabled",
                          cookie.c_str());
    ReplayClient::ShutDownClient(0, nullptr);
}

// At exit the client threads are ended before the process-wide objects they
// use are destroyed: those are created first, then the handler is
// registered, so that it runs before their destructors.
void StopClientThreadsAtExit() {
    clientReadThread.RequestStop();
    clientPingThread.RequestStop();
}

void RegisterThreadStopAtExit() {
    static const bool registered = [] {
        ReplayCore::ExecutionTimerManager::Get();
        ReplayOutputFiler::Get();
        ReplayRuntimeOptions::Get();
        ReplayErrorManager::Get();
        return std::atexit(&StopClientThreadsAtExit) == 0;
    }();
    (void)registered;
}

// Common first steps of both overloads; false when replay is disabled.
bool BeginInitialization(const char* clientName) {
    SetupDefaultMessageHandlers(clientName);
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s: InitializeReplayClient", clientName);
    if (!ReplayRuntimeOptions::Get().ReplayEnabled()) {
        ReportReplayDisabled();
        return false;
    }
    return true;
}

}  // namespace

namespace ReplayClient {

int ReplayMessageHandlerBase::InitializationCallback(void* /*data*/, unsigned int /*nBytes*/) {
    std::printf("\nUndefined Default Initializer Called");
    std::fflush(stdout);
    return 0;
}

void ReplayMessageHandlerBase::ReplayComplete(unsigned int /*size*/, char* /*text*/) {
    std::printf("\nReplay is Finished");
    std::fflush(stdout);
}

int ReplayMessageHandlerBase::DoCallback(void* data, unsigned int nBytes, unsigned int clientTime,
                                         bool isInitialization) {
    if (isInitialization && hasInitializer) {
        std::printf("\nSending Initialization Record; size=%d", static_cast<int>(nBytes));
        std::fflush(stdout);
        return InitializationCallback(data, nBytes);
    }
    return ReplayCallback(data, nBytes, clientTime);
}

ReplayMessageHandler::ReplayMessageHandler(ReplayCallbackFunction replayCallback,
                                           InitializationCallbackFunction initializationCallback)
    : ReplayMessageHandlerBase(false),
      replayCallback(replayCallback),
      initializationCallback(initializationCallback) {
    hasInitializer = initializationCallback != nullptr;
}

int ReplayMessageHandler::ReplayCallback(void* data, unsigned int nBytes, unsigned int clientTime) {
    return replayCallback != nullptr ? replayCallback(data, nBytes, clientTime) : 0;
}

int ReplayMessageHandler::InitializationCallback(void* data, unsigned int nBytes) {
    return initializationCallback != nullptr ? initializationCallback(data, nBytes) : 0;
}

int DefaultInitializeReplayHandler(void* data, unsigned int /*nBytes*/) {
    if (data != nullptr) {
        std::printf("\nInitializationData=%s", static_cast<const char*>(data));
        std::fflush(stdout);
    }
    return 1;
}

int InitializeReplayClient(const char* clientName, ReplayCallbackFunction clientCallbackHandler,
                           InitializationCallbackFunction initializationCallback,
                           unsigned int dataType, const void* initData, unsigned int nBytes) {
    if (clientName == nullptr) {
        clientName = "";
    }
    if (!BeginInitialization(clientName)) {
        return 0;
    }
    if (clientCallbackHandler == nullptr) {
        FileLogger::LogAssertion(908, kClientSourceFile, "clientCallbackHandler");
        if (DebugOutputAttached()) {
            dbgError("%s::%s: No CallBack Handler Specified\n", DebugAppName(), kInitializeTag);
        }
        std::printf("No CallBack Handler Specified");
        std::fflush(stdout);
        FileLogger::LogToFile(FileLogger::eSeverityError, "No CallBack Handler Specified");
        ShutDownClient(0, nullptr);
        return 0;
    }
    if (g_replayMessageHandler.load(std::memory_order_relaxed) != nullptr) {
        // The first initialisation stays in force.
        if (DebugOutputAttached()) {
            dbgError("%s::%s: g_replayMessageHandler Already Initialized!\n", DebugAppName(),
                     kInitializeTag);
        }
        FileLogger::LogToFile(FileLogger::eSeverityError,
                              "%s: g_replayMessageHandler Already Initialized!", ClientName());
        return 0;
    }
    // Lives for the rest of the process.
    g_replayMessageHandler.store(
        new ReplayMessageHandler(clientCallbackHandler, initializationCallback),
        std::memory_order_relaxed);
    return SetupConnection(clientName, false, initData, dataType, nBytes);
}

int InitializeReplayClient(const char* clientName, ReplayMessageHandlerBase* replayMessageHandler,
                           unsigned int dataType, bool /*asynchronous*/, const void* initData,
                           unsigned int nBytes) {
    if (clientName == nullptr) {
        clientName = "";
    }
    if (!BeginInitialization(clientName)) {
        return 0;
    }
    if (replayMessageHandler == nullptr) {
        FileLogger::LogAssertion(949, kClientSourceFile, "replayMessageHandler");
        if (DebugOutputAttached()) {
            dbgError("%s::%s: No Client Specified\n", DebugAppName(), kInitializeTag);
        }
        std::printf("\nNo Client Specified");
        std::fflush(stdout);
        ShutDownClient(0, nullptr);
        return 0;
    }
    // No guard against an earlier initialisation: the new handler replaces
    // the old one. Asynchronous clients are no longer supported.
    g_replayMessageHandler.store(replayMessageHandler, std::memory_order_relaxed);
    return SetupConnection(clientName, false, initData, dataType, nBytes);
}

}  // namespace ReplayClient

int SetupConnection(const char* clientName, bool asynchronous, const void* initData,
                    unsigned int dataType, unsigned int nBytes) {
    static const char* const kTag = "libReplay::ReplayClient::SetupConnection";
    // The client threads read the name; it is written only when it changes.
    if (clientName == nullptr) {
        clientName = "";
    }
    if (g_clientName != clientName) {
        g_clientName = clientName;
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: ClientName=%s; nBytes=%u\n", DebugAppName(), kTag, ClientName(),
                   nBytes);
    }
    g_clientStateManager.SetClientState(ReplayCore::eStateConnecting, nullptr);

    // The threads started below inherit the blocked signal.
    if (!ReplayPlatform::BlockSignal(SIGIO, signal_mask) && DebugOutputAttached()) {
        dbgError("%s::%s: Error Returned by pthread_sigmask\n", DebugAppName(), kTag);
    }

    ReplayRuntimeOptions& options = ReplayRuntimeOptions::Get();
    const int level = options.GetIntegerValue(eClientUDPDebugLevel);
    g_LoggingLevel.store(static_cast<unsigned int>(level), std::memory_order_relaxed);
    FileLogger::SetLogginglevel(level);

    g_nameLength = static_cast<uint32_t>(g_clientName.size());
    if (g_nameLength == 0) {
        // The signal stays blocked on this path.
        FileLogger::LogAssertion(988, ReplayClient::kClientSourceFile, "g_nameLength > 0");
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Client Name\n", DebugAppName(), kTag);
        }
        ReplayClient::ShutDownClient(0, nullptr);
        return 0;
    }

    const std::string address = options.GetStringValue(eServerIP);
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Connecting to Server IP %s\n", DebugAppName(), kTag, address.c_str());
    }
    ReplayClient::LogClientMessage(FileLogger::eSeverityInfo, "%s: Connecting to Server IP %s",
                                   ClientName(), address.c_str());

    if (asynchronous) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Asynchronous Client No Longer Supported\n", DebugAppName(), kTag);
        }
        ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                       "Asynchronous Client No Longer Supported");
        ReplayClient::ShutDownClient(0, nullptr);
        return 0;
    }

    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Constructing synchronous connection\n", DebugAppName(), kTag);
    }
    const int socket = g_replayClient.Open(address.c_str(), ReplayClient::kServerPort);
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Client Socket=%d \n", DebugAppName(), kTag, socket);
    }
    if (socket < 1) {
        const int error = errno;
        FileLogger::LogAssertion(1017, ReplayClient::kClientSourceFile,
                                 "g_replayClient.Socket() > 0");
        if (socket < 0) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Socket not Valid; error = %s\n", DebugAppName(), kTag,
                         std::strerror(error));
            }
            ReplayClient::LogClientMessage(FileLogger::eSeverityError, "%s: Invalid Socket",
                                           ClientName());
        }
        errno = error;
        // The threads still start; they keep trying to reach the server.
    }

    FileLogger::LogToFile(FileLogger::eSeverityInfo, "%s:Starting Ping Thread", ClientName());
    const unsigned int initSize = initData != nullptr ? nBytes : 0;
    const MSTime::MSTimeStruct now = MSTime::CurrentTimeMS();

    if (socket > 0) {
        if (initSize != 0) {
            {
                // Block number 0 marks the initialisation record for replay.
                CMutexScopedLock lock(clientWriteMutex);
                g_UDPSendBuffer.InitializeMemoryBuffer(now, dataType, 0);
            }
            ReplayClient::LogClientMessage(FileLogger::eSeverityInfo,
                                           "%s: Sending Initialization Data to Server",
                                           ClientName());
            if (ReplayClient::SendClientData(initData, initSize, true, dataType) < 1) {
                ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                               "%s: Failed to Connect to Server %s; Error=%s",
                                               ClientName(), address.c_str(), std::strerror(errno));
            } else {
                g_clientStateManager.SetClientConnected();
            }
        } else {
            {
                CMutexScopedLock lock(clientWriteMutex);
                g_UDPSendBuffer.InitializeMemoryBuffer(now, dataType, 1);
            }
            if (ReplayClient::SendClientMessage(nullptr, 0) < 1) {
                ReplayClient::LogClientMessage(FileLogger::eSeverityInfo, "Initial Message Failed");
            } else {
                g_clientStateManager.SetClientConnected();
                ReplayClient::LogClientMessage(FileLogger::eSeverityInfo, "Initial Message Sent");
            }
        }
    }

    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Starting Ping Thread\n", DebugAppName(), kTag);
    }
    RegisterThreadStopAtExit();
    if (!clientPingThread.start()) {
        // The read thread is never started and the signal stays blocked.
        ReplayClient::LogClientMessage(FileLogger::eSeverityInfo,
                                       "Error Starting clientPingThread");
        ReplayClient::ShutDownClient(0, nullptr);
        return 0;
    }
    clientReadThread.start();
    if (!ReplayPlatform::UnblockSignals(signal_mask) && DebugOutputAttached()) {
        dbgError("%s::%s: Error Returned by pthread_sigmask\n", DebugAppName(), kTag);
    }

    const ReplayCore::ReplayState state = g_clientStateManager.GetState();
    if (g_replayClient.Socket() > 0 &&
        (state == ReplayCore::eStateStopped || state == ReplayCore::eStateRecord ||
         state == ReplayCore::eStateReplay)) {
        ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                       "%s: Initialization Complete; connected to Server %s",
                                       ClientName(), address.c_str());
        return 1;
    }
    ReplayClient::LogClientMessage(FileLogger::eSeverityError,
                                   "%s: Failed to Connect to Server %s; Error=%s", ClientName(),
                                   address.c_str(), std::strerror(errno));
    return 0;
}
