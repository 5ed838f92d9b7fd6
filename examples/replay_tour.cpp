// A short tour of the client library's public interface, without a server:
// versions, data types, the state commands the server sends, the clock and
// the Ascii7 coding of binary data. Prints what each step did; exits 1 when
// a round trip does not come back unchanged.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "libreplay/ReplayClientC.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayVersion.h"

namespace {

// State commands with arguments, as the server sends them, and back.
bool TourStateCommands(const std::string& logTime) {
    using ReplayCore::ReplayStateManager;
    const std::string command =
        ReplayStateManager::GetCommandFromState(ReplayCore::eStateReplay, "s=3;l=" + logTime);
    ReplayStateManager::CommandArgsParser arguments;
    const ReplayCore::ReplayState state =
        ReplayStateManager::GetStateFromCommand(command, arguments);
    std::string slot;
    std::string parsedTime;
    const bool parsed = arguments.Get('s', slot) && arguments.Get('l', parsedTime);
    std::printf("command \"%s\" parses as state %s, s=%s, l=%s\n", command.c_str(),
                ReplayStateManager::GetReplayStateName(state).c_str(), slot.c_str(),
                parsedTime.c_str());
    return parsed && state == ReplayCore::eStateReplay && slot == "3" && parsedTime == logTime;
}

// Raw bytes as Ascii7 text (what data type 4 carries) and back.
bool TourAscii7() {
    const unsigned char bytes[] = {0x00, 0x01, 0x7F, 0x80, 0xDE, 0xFF, 'g', 'p', 's'};
    std::vector<char> text(CAscii7EncodedSize(sizeof bytes));
    const int textLength =
        CEncodeAscii7(bytes, sizeof bytes, text.data(), static_cast<unsigned int>(text.size()));
    unsigned char decoded[sizeof bytes] = {};
    const int decodedLength =
        textLength < 0 ? -1 : CDecodeAscii7(text.data(), decoded, sizeof decoded);
    std::printf("%zu bytes encode to %d characters of Ascii7 text, decode to %d bytes\n",
                sizeof bytes, textLength, decodedLength);
    return decodedLength == static_cast<int>(sizeof bytes) &&
           std::memcmp(decoded, bytes, sizeof bytes) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("replay_tour %s\n", LIBREPLAY_VERSION);
        return 0;
    }
    if (argc > 1) {
        std::fprintf(stderr, "usage: replay_tour [--version]\n");
        return 2;
    }
    std::printf("built against libreplay %s, running with %s\n", LIBREPLAY_VERSION,
                CGetLibraryVersion());

    // In a record a data type travels as one character, the code plus 32.
    std::printf("data types:");
    for (unsigned int type = 0; type <= kMaxDataType; ++type) {
        std::printf(" %u='%c'", type, static_cast<char>(type + 32));
    }
    std::printf("; raw bytes go as %u, bytes already in Ascii7 as %u\n", kDataTypeBinary,
                kDataTypeAsciiEncodedBinary);

    // The millisecond clock and the tenth of a second it falls in.
    const ReplayCore::MSTime::MSTimeStruct now = ReplayCore::MSTime::CurrentTimeMS();
    std::printf("clock: %s s, time slot %u\n", now.ToString().c_str(),
                ReplayCore::GetTimeSlotFromTime(now));

    bool typesRoundTrip = true;
    for (unsigned int type = 0; type <= kMaxDataType; ++type) {
        typesRoundTrip = typesRoundTrip && DataTypeFromChar(static_cast<char>(type + 32)) == type;
    }
    const bool commandsRoundTrip = TourStateCommands(now.ToString());
    const bool ascii7RoundTrip = TourAscii7();
    return typesRoundTrip && commandsRoundTrip && ascii7RoundTrip ? 0 : 1;
}
