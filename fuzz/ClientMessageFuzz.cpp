// Feeds arbitrary datagrams to the client's server-message handler, as the
// read thread does: commands with every argument key, and replay records.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ReplayManager/ReplayClientInternal.h"
#include "reference/src/target_root.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool prepared = [] {
        char root[] = "/tmp/replay-fuzz-XXXXXX";
        ReplayPlatform::SetTargetRoot(mkdtemp(root));
        return true;
    }();
    (void)prepared;
    const std::string text(reinterpret_cast<const char*>(data), size);
    // Option files named by the input could be devices that never end
    // reading; the reload itself is covered by the options file target.
    if (text.find("c=") != std::string::npos) {
        return 0;
    }
    g_clientStateManager.SetStateForTesting(size > 0 && data[0] == 'R' ? ReplayCore::eStateReplay
                                                                       : ReplayCore::eStateStopped);
    clientReadThread.udpClientMessageHandler(data, static_cast<int>(size));
    return 0;
}
