// Server commands as the client's read thread receives them: the state word,
// the argument fields and the time texts inside them.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libreplay/server/FileLogger.h"
#include "libreplay/ReplayCore.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Failed expectations are logged to a file; keep the fuzzer off the disk.
    ReplayCore::FileLogger::SetLogginglevel(-1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using ReplayCore::ReplayStateManager;
    const std::string command(reinterpret_cast<const char*>(data), size);
    ReplayStateManager::CommandArgsParser parser;
    const ReplayCore::ReplayState state = ReplayStateManager::GetStateFromCommand(command, parser);
    ReplayStateManager::GetReplayStateName(state);

    for (char key : {'c', 's', 'D', 't', 'l'}) {
        std::string value;
        if (parser.Get(key, value)) {
            const ReplayCore::MSTime::MSTimeStruct time(value);
            ReplayCore::GetTimeSlotFromTime(time);
            time.ToString();
        }
    }
    std::vector<std::string> pieces;
    ReplayCore::SplitString(command.c_str(), pieces, 1 + static_cast<unsigned int>(size % 64), ';');
    return 0;
}
