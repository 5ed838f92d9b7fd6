// The run-time loading proxy. It lives in a library of its own, separate
// from libreplay.so, and reaches the library only through the dynamic
// loader, so an application linked against the proxy starts and runs whether
// or not libreplay.so is installed.
//
// The CSafe entry points are defined here, not in libreplay.so: they exist
// for applications that must run without the library, so they cannot live
// inside it, and libreplay.so never depends on the proxy. The library
// therefore exports none of them, and loading it with global visibility
// cannot clash with these names.

#include "libreplay/ReplayClientInterface.h"

#include <dlfcn.h>

#include <cstdio>

namespace {

const char* const kLibraryName = "libreplay.so";
// The name the library runs under (its soname, with the major version): a
// system that has only the run-time package installed has no plain
// libreplay.so, and a process that links the library directly has it loaded
// under this name.
const char* const kVersionedLibraryName = REPLAY_LIBRARY_SONAME;
// The library's internal log writer and default handler set-up are C++
// functions; the proxy reaches them by their exported (mangled) names so
// that it never links against the library.
const char* const kInternalLogSymbol = "_ZN14ReplayInternal9LogToFileEPKcz";
const char* const kDefaultHandlersSymbol = "_ZN14ReplayInternal27SetupDefaultMessageHandlersEPKc";

typedef void (*InternalLogFunction)(const char* format, ...);
typedef void (*DefaultHandlersFunction)(const char* appName);

void Print(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

template <typename Function>
Function Lookup(void* handle, const char* name) {
    return handle != nullptr ? reinterpret_cast<Function>(dlsym(handle, name)) : nullptr;
}

// Looks `name` up and announces the result.
template <typename Function>
Function LookupAnnounced(void* handle, const char* name) {
    const Function function = Lookup<Function>(handle, name);
    std::printf(function != nullptr ? "\n%s Loaded" : "\nFailed to Load %s", name);
    std::fflush(stdout);
    return function;
}

}  // namespace

ReplayClientInterface::ReplayClientInterface() {
    m_libraryHandle = dlopen(kVersionedLibraryName, RTLD_NOW | RTLD_GLOBAL);
    if (m_libraryHandle == nullptr) {
        m_libraryHandle = dlopen(kLibraryName, RTLD_NOW | RTLD_GLOBAL);
    }
    if (m_libraryHandle == nullptr) {
        Print("\nFailed to Load libreplay.so");
        return;
    }
    Print("\nlibreplay.so Loaded");

    m_sendClientData = LookupAnnounced<SendClientDataFunction>(m_libraryHandle, "CSendClientData");
    m_initializeFromHandler = LookupAnnounced<InitializeFromHandlerFunction>(
        m_libraryHandle, "CInitializeFromHandlerClass");
    m_getReplayState = LookupAnnounced<GetReplayStateFunction>(m_libraryHandle, "CGetReplayState");
    m_shutDownClient = LookupAnnounced<ShutDownClientFunction>(m_libraryHandle, "CShutDownClient");
    m_initializeReplayClient =
        LookupAnnounced<InitializeReplayClientFunction>(m_libraryHandle, "CInitializeReplayClient");
    // The library exports this as setLoggingHandlers: the lookup fails and
    // the default handlers are used. Kept so deliberately.
    m_setupLoggingHandlers =
        LookupAnnounced<SetupLoggingHandlersFunction>(m_libraryHandle, "SetupLoggingHandlers");

    m_dumpTextToFile = Lookup<DumpTextToFileFunction>(m_libraryHandle, "CDumpTextToFile");
    if (m_dumpTextToFile == nullptr) {
        Print("\nFailed to Load CDumpTextToFile");
    }
    // m_dumpHexToFile is never looked up: hex dumps through the proxy are
    // switched off.

    m_writeReplayOutput = Lookup<WriteReplayOutputFunction>(m_libraryHandle, "CWriteReplayOutput");
    if (m_writeReplayOutput == nullptr) {
        Print("\nFailed to Load CWriteReplayOutput");
        Print("\nFailed to Load CWriteReplayOutput\n");
    } else {
        Print("\nCWriteReplayOutput Loaded!\n");
    }
}

ReplayClientInterface::~ReplayClientInterface() {
    if (m_libraryHandle == nullptr) {
        return;
    }
    LogInternal("\nUnloading libreplay.so");
    Print("\nUnloading libreplay.so");
    dlclose(m_libraryHandle);
    m_libraryHandle = nullptr;
}

void ReplayClientInterface::LogInternal(const char* text) const {
    const InternalLogFunction log =
        Lookup<InternalLogFunction>(m_libraryHandle, kInternalLogSymbol);
    if (log != nullptr) {
        log("%s", text);
    }
}

int ReplayClientInterface::SendClientData(const void* data, unsigned int nBytes, bool immediate,
                                          unsigned int dataType) {
    return m_sendClientData != nullptr ? m_sendClientData(data, nBytes, immediate ? 1 : 0, dataType)
                                       : 0;
}

int ReplayClientInterface::WriteReplayOutput(const char* text) {
    return m_writeReplayOutput != nullptr ? m_writeReplayOutput(text) : 0;
}

int ReplayClientInterface::DumpTextToFile(const char* name, const char* text) {
    return m_dumpTextToFile != nullptr ? m_dumpTextToFile(name, text) : 0;
}

void ReplayClientInterface::DumpHexToFile(const char* name, const unsigned char* bytes,
                                          unsigned int count, int showAscii) {
    if (m_dumpHexToFile != nullptr) {
        m_dumpHexToFile(name, bytes, count, showAscii);
    }
}

void ReplayClientInterface::ShutDownClient(int notifyServer) {
    if (m_shutDownClient != nullptr) {
        m_shutDownClient(notifyServer);
    }
}

int ReplayClientInterface::InitializeReplayClient(
    const char* clientName, CReplayCallbackFunction replayCallback,
    CInitializationCallbackFunction initializationCallback, unsigned int dataType,
    const void* initData, unsigned int nBytes) {
    return m_initializeReplayClient != nullptr
               ? m_initializeReplayClient(clientName, replayCallback, initializationCallback,
                                          dataType, initData, nBytes)
               : 0;
}

int ReplayClientInterface::InitializeReplayClient(const char* clientName,
                                                  ReplayMessageHandlerHandle* handler,
                                                  unsigned int dataType, bool asynchronous,
                                                  const void* initData, unsigned int nBytes) {
    LogInternal("\nReplayClientInterface::InitializeReplayClient");
    if (m_initializeFromHandler == nullptr) {
        LogInternal(
            "\nError: ReplayClientInterface::InitializeReplayClient: Failed to load "
            "Initialization funtion");
        return 0;
    }
    return m_initializeFromHandler(clientName, handler, dataType, asynchronous ? 1 : 0, initData,
                                   nBytes);
}

ReplayCore::ReplayState ReplayClientInterface::GetReplayState() const {
    return m_getReplayState != nullptr ? static_cast<ReplayCore::ReplayState>(m_getReplayState())
                                       : ReplayCore::eStateUnknown;
}

void ReplayClientInterface::SetupLoggingHandlers(const char* appName, CDebugMessageFunction message,
                                                 CDebugMessageFunction warning,
                                                 CDebugMessageFunction error) {
    if (m_setupLoggingHandlers != nullptr) {
        m_setupLoggingHandlers(appName, message, warning, error);
        return;
    }
    const DefaultHandlersFunction defaults =
        Lookup<DefaultHandlersFunction>(m_libraryHandle, kDefaultHandlersSymbol);
    if (defaults != nullptr) {
        defaults(appName);
    }
}

ReplayClientInterface& GetClientProxy() {
    static ReplayClientInterface proxy;
    return proxy;
}

extern "C" {

int CSafeInitializeReplayClient(const char* clientName, CReplayCallbackFunction replayCallback,
                                CInitializationCallbackFunction initializationCallback,
                                unsigned int dataType, const void* initData, unsigned int nBytes) {
    Print("\nCSafeInitializeReplayClient");
    return GetClientProxy().InitializeReplayClient(
        clientName, replayCallback, initializationCallback, dataType, initData, nBytes);
}

int CSafeSendClientData(const void* data, unsigned int nBytes, unsigned int dataType) {
    ReplayClientInterface& proxy = GetClientProxy();
    if (proxy.GetReplayState() != ReplayCore::eStateRecord) {
        return 0;
    }
    return proxy.SendClientData(data, nBytes, false, dataType);
}

int CSafeReplayingLogFile(void) {
    return GetClientProxy().GetReplayState() == ReplayCore::eStateReplay ? 1 : 0;
}

}  // extern "C"
