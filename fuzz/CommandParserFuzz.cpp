// Parses arbitrary commands and reads every argument key the client uses.

#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "libreplay/ReplayCore.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string command(reinterpret_cast<const char*>(data), size);
    ReplayCore::ReplayStateManager::CommandArgsParser parser;
    const ReplayCore::ReplayState state =
        ReplayCore::ReplayStateManager::GetStateFromCommand(command, parser);
    if (state < ReplayCore::eStateStopped || state > ReplayCore::eStateUnknown) {
        __builtin_trap();
    }
    for (char key : {'c', 's', 'D', 't', 'l', 'x', '='}) {
        std::string value;
        parser.Get(key, value);
    }
    ReplayCore::ReplayStateManager::GetCommandFromState(state, parser.GetArgs());
    return 0;
}
