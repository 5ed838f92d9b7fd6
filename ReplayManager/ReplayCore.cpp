#include "libreplay/ReplayCore.h"

#include <cmath>
#include <cstring>
#include <sstream>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"

const unsigned int kDataTypeUnspecified = 0;
const unsigned int kDataTypeNormalizedAsciiText = 1;
const unsigned int kDataTypeAsciiText = 2;
const unsigned int kDataTypeStatusText = 3;
const unsigned int kDataTypeAsciiEncodedBinary = 4;
const unsigned int kDataTypeBinary = 5;
const unsigned int kDataTypeAscii7Initialization = 6;
const unsigned int kMaxDataType = 6;

namespace {
// A record carries its data type as this offset plus the code.
constexpr int kDataTypeCharOffset = 32;
constexpr unsigned int kMaximumClientRecordSize = 2041;
// Commands of this length or more are rejected unread.
constexpr size_t kCommandLengthLimit = 197;
// Room for one argument field, terminator included.
constexpr std::streamsize kArgumentFieldSize = 128;
}  // namespace

bool DataTypeValid(unsigned int type) {
    return type <= kMaxDataType;
}

bool DataTypeDefined(unsigned int type) {
    return type > kDataTypeUnspecified && type <= kMaxDataType;
}

unsigned int DataTypeFromChar(char c) {
    const int code = c - kDataTypeCharOffset;
    const unsigned int type = static_cast<unsigned int>(code);
    if (DataTypeValid(type)) {
        return type;
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Invalid Data Type %d\n", DebugAppName(),
                   "libReplay::ReplayCore::DataTypeFromChar", code);
    }
    return kDataTypeUnspecified;
}

// Yields 1, not the record character, for a valid type: existing callers of
// the exported symbol expect exactly that, and record writers add 32
// themselves.
char CharFromDataType(unsigned int type) {
    if (DataTypeValid(type)) {
        return 1;
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Invalid Data Type %u\n", DebugAppName(),
                   "libReplay::ReplayCore::CharFromDataType", type);
    }
    return ' ';
}

unsigned int GetMaximumClientRecordSize() {
    return kMaximumClientRecordSize;
}

namespace ReplayCore {

const double g_naturalLogOf2 = std::log(2.0);

namespace SpecialStrings {
const char* const kLoggingSystem = "multicore";
const char* const kReplayMarker = "Q\t[-M-] \t";
const char* const kLocalHost = "127.0.0.1";
}  // namespace SpecialStrings

const char* const ReplayStateManager::s_stopCmd = "stop";
const char* const ReplayStateManager::s_recordCmd = "record";
const char* const ReplayStateManager::s_replayCmd = "replay";
const char* const ReplayStateManager::s_quitCmd = "quit";
const char* const ReplayStateManager::s_waitCmd = "wait";
const char* const ReplayStateManager::s_connecting = "connecting";
const char* const ReplayStateManager::s_disconnected = "disconnected";

std::string ReplayStateManager::GetReplayStateName(ReplayState state) {
    static const std::string stopped("Stopped");
    static const std::string record("Record");
    static const std::string replay("Replay");
    static const std::string shutDown("Shut Down");
    static const std::string disconnected("Disconnected");
    static const std::string connecting("Connecting");

    switch (state) {
        case eStateStopped:
            return stopped;
        case eStateRecord:
            return record;
        case eStateReplay:
            return replay;
        case eStateShutDown:
            return shutDown;
        case eStateDisconnected:
            return disconnected;
        case eStateConnecting:
            return connecting;
        case eStateUnknown:
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Unrecognized Replay State %d\n", DebugAppName(),
                         "libReplay::ReplayStateManager::GetReplayStateName",
                         static_cast<int>(state));
            }
            return stopped;
    }
    return stopped;
}

std::string ReplayStateManager::GetCommandFromState(ReplayState state, const std::string& args) {
    static const char* const kTag = "libReplay::ReplayStateManager::GetCommandFromState";
    const std::string suffix = args.empty() ? std::string() : " " + args + ";";
    switch (state) {
        case eStateStopped:
            return std::string("#") + s_stopCmd + suffix;
        case eStateRecord:
            return std::string("#") + s_recordCmd + suffix;
        case eStateReplay:
            return std::string("#") + s_replayCmd + suffix;
        case eStateShutDown:
            return std::string("#") + s_quitCmd + suffix;
        case eStateDisconnected:
            if (DebugOutputAttached()) {
                dbgError("%s::%s: Unexpected Command Disconnected\n", DebugAppName(), kTag);
            }
            return std::string();
        case eStateConnecting:
            if (DebugOutputAttached()) {
                dbgWarning("%s::%s: Unexpected Command Connecting\n", DebugAppName(), kTag);
            }
            return std::string("#") + s_connecting + suffix;
        default:
            break;
    }
    if (DebugOutputAttached()) {
        dbgError("%s::%s: Unrecognized Replay State %d\n", DebugAppName(), kTag,
                 static_cast<int>(state));
    }
    return std::string();
}

ReplayState ReplayStateManager::GetStateFromCommand(const std::string& command,
                                                    CommandArgsParser& parser) {
    static const char* const kTag = "libReplay::ReplayStateManager::GetStateFromCommand";
    if (command.empty()) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Zero Length Command String\n", DebugAppName(), kTag);
        }
        return eStateUnknown;
    }
    if (command.size() >= kCommandLengthLimit) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Command String length of %d exceeds limit of 196\n", DebugAppName(),
                     kTag, static_cast<int>(command.size()));
        }
        return eStateUnknown;
    }

    const std::string text = command[0] == '#' ? command.substr(1) : command;

    struct CommandWord {
        const char* word;
        ReplayState state;
    };
    static const CommandWord kWords[] = {
        {s_stopCmd, eStateStopped},
        {s_recordCmd, eStateRecord},
        {s_replayCmd, eStateReplay},
        {s_quitCmd, eStateShutDown},
    };

    // Only the word's own length is compared: any text that begins with the
    // word selects its state, whatever follows.
    const CommandWord* matched = nullptr;
    for (const CommandWord& candidate : kWords) {
        if (text.compare(0, std::strlen(candidate.word), candidate.word) == 0) {
            matched = &candidate;
            break;
        }
    }
    if (matched == nullptr) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Unrecognised Command %s\n", DebugAppName(), kTag, command.c_str());
        }
        return eStateUnknown;
    }

    // Arguments start one character after the word (the separator is not
    // examined) and end before the last ';'.
    const size_t argsStart = std::strlen(matched->word) + 1;
    const size_t lastSemicolon = text.rfind(';');
    if (lastSemicolon == std::string::npos || lastSemicolon <= argsStart) {
        return matched->state;
    }
    const std::string args = text.substr(argsStart, lastSemicolon - argsStart);
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Command Args: %s\n", DebugAppName(), kTag, args.c_str());
    }
    parser.SetArgs(args);
    return matched->state;
}

bool ReplayStateManager::CommandArgsParser::Get(char key, std::string& value) const {
    std::istringstream strstream(m_args);
    while (!strstream.eof()) {
        char field[kArgumentFieldSize];
        strstream.getline(field, kArgumentFieldSize, ';');
        // Fails when no text is left to read or a field does not fit.
        if (strstream.fail()) {
            FileLogger::LogAssertion(658, "ReplayManager/ReplayCore", "!strstream.fail()");
            return false;
        }
        if (field[0] == key) {
            value = std::strlen(field) > 2 ? std::string(field + 2) : std::string();
            return true;
        }
    }
    return false;
}

unsigned int SplitString(const char* text, std::vector<std::string>& out, unsigned int size,
                         char delimiter) {
    if (text == nullptr || size < 2) {
        return static_cast<unsigned int>(out.size());
    }
    const size_t maximumPiece = size - 1;
    const char* position = text;
    while (*position != '\0') {
        const char* pieceStart = position;
        while (*position != '\0' && *position != delimiter &&
               static_cast<size_t>(position - pieceStart) < maximumPiece) {
            ++position;
        }
        if (position != pieceStart) {
            out.emplace_back(pieceStart, position);
        }
        if (*position == delimiter) {
            ++position;
        }
        while (*position == ' ') {
            ++position;
        }
    }
    return static_cast<unsigned int>(out.size());
}

}  // namespace ReplayCore
