// Feeds arbitrary datagrams to the client's server-message handler, as the
// read thread does: commands (first byte '#') with every argument key in the
// Stopped state, and anything else as a replay record in the Replay state,
// delivered to a callback that reads every byte. Waiting for an item's moment
// is replaced by a no-op so that far-ahead items cost nothing.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ReplayManager/ReplayClientInternal.h"
#include "fuzz/FuzzSupport.h"

namespace {

// Reads each delivered byte, so that a delivery beyond the data is seen.
class TouchingHandler : public ReplayClient::ReplayMessageHandlerBase {
  public:
    TouchingHandler() : ReplayMessageHandlerBase(true) {}
    int ReplayCallback(void* data, unsigned int nBytes, unsigned int) override {
        return Touch(data, nBytes);
    }
    int InitializationCallback(void* data, unsigned int nBytes) override {
        return Touch(data, nBytes);
    }

  private:
    static int Touch(void* data, unsigned int nBytes) {
        const volatile unsigned char* bytes = static_cast<const unsigned char*>(data);
        unsigned int sum = 0;
        for (unsigned int index = 0; index < nBytes; ++index) {
            sum += bytes[index];
        }
        return static_cast<int>(sum & 1);
    }
};

void NoSleep(unsigned int) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    static TouchingHandler handler;
    g_clientName = "Fuzz";
    g_replayMessageHandler.store(&handler);
    ReplayClient::SynchronousReadThread::SetSleepForTesting(&NoSleep);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    // Option files named by the input could be devices that never end
    // reading; the reload itself is covered by the options file target.
    if (text.find("c=") != std::string::npos) {
        return 0;
    }
    const bool command = size > 0 && data[0] == '#';
    g_clientStateManager.SetStateForTesting(command ? ReplayCore::eStateStopped
                                                    : ReplayCore::eStateReplay);
    clientReadThread.udpClientMessageHandler(data, static_cast<int>(size));
    return 0;
}
