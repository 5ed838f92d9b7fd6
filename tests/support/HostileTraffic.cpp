#include "tests/support/HostileTraffic.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "libreplay/ReplayCore.h"

namespace ReplayTest {

namespace {

constexpr size_t kLargestDatagram = 9000;
constexpr size_t kSocketsAtOnce = 200;

const char* const kAbsurdValues[] = {
    "4294967296",
    "-1",
    "99999999999999999999",
    "",
    "abc",
    "4294967295",
    "-2147483648.-999",
    "2147483647.999",
    "99999999999.99999",
    "1e30",
    " 7",
    "0.0",
    "-0",
    "%s%s%n",
    "\x01\x7f\xff",
};
const char* const kWords[] = {"stop", "record", "replay", "recordX", "replayed", "sto",
                              "",     "#",      "STOP",   "stop ",   "reco"};
const char* const kKeys = "cstDlxw=;#";

}  // namespace

std::string WithChecksum(const std::string& body, bool damage) {
    uint32_t sum = 0;
    for (const char byte : body) {
        sum += static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(byte)));
    }
    if (damage) {
        ++sum;
    }
    char field[16];
    std::snprintf(field, sizeof field, "%8x\n", sum);
    return body + field;
}

std::string HostileMix::ConnectRecord(const std::string& name) {
    return WithChecksum("#1000.000:" + name + ":");
}

std::string HostileMix::RandomBytes(size_t length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(Below(256));
    }
    return bytes;
}

std::string HostileMix::AbsurdCommand() {
    std::string command = "#";
    command += kWords[Below(sizeof kWords / sizeof kWords[0])];
    command += ' ';
    const size_t fields = Below(6);
    for (size_t i = 0; i < fields; ++i) {
        switch (Below(8)) {
            case 0:
                command += std::string(Below(1200), ';');
                break;
            case 1:
                // Paths a client must not read as options: endless, a
                // directory, absent, absurdly long.
                command += std::string("c=") +
                           (Below(2)   ? "/dev/zero"
                            : Below(2) ? "/"
                                       : "/nonexistent/none") +
                           ";";
                break;
            case 2:
                command += "c=" + std::string(300, 'a') + ";";
                break;
            case 3:
                command += std::string(1, kKeys[Below(10)]);  // no '='
                command += ';';
                break;
            default:
                command += kKeys[Below(5)];
                command += '=';
                command += kAbsurdValues[Below(sizeof kAbsurdValues / sizeof kAbsurdValues[0])];
                if (Below(4) != 0) {
                    command += ';';
                }
                break;
        }
    }
    return command;
}

std::string HostileMix::ForClient() {
    switch (Below(7)) {
        case 0:
            return RandomBytes(Below(2100));
        case 1:
            return "#" + RandomBytes(Below(300));
        case 2: {
            std::string command = AbsurdCommand();
            return command.substr(0, Below(command.size() + 1));
        }
        case 3:
            return "#record " + std::string(kLargestDatagram, 's');
        case 4:
            // A replay record whose checksum does not match.
            return WithChecksum("\"1000.000:victim:!1 " + std::to_string(Below(100000)) + ":" +
                                    RandomBytes(Below(100)),
                                true);
        default:
            return AbsurdCommand();
    }
}

std::string HostileMix::DataRecordBody(const std::string& name) {
    // Within the last second of the clock that real clients stamp their
    // records with: the log keeps records in time order and drops those that
    // come after later ones, so this traffic stays beside theirs.
    const int64_t now = ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds;
    const int64_t time = now - static_cast<int64_t>(Below(1000));
    return "\"" + ReplayCore::MSTime::MSTimeStruct(0, time).ToString() + ":" + name + ":!1 " +
           std::to_string(1 + Below(50)) + ":" + RandomBytes(Below(200));
}

std::string HostileMix::DataRecord(const std::string& name) {
    return WithChecksum(DataRecordBody(name));
}

std::string HostileMix::ForServer(unsigned int distinctNames) {
    const std::string name = "f" + std::to_string(Below(std::max(1u, distinctNames)));
    const std::string time = std::to_string(Below(100000)) + "." + std::to_string(Below(1000));
    const std::string data = DataRecordBody(name);
    switch (Below(10)) {
        case 0:
            return RandomBytes(Below(2100));
        case 1: {
            // Cut by the socket to 2048 bytes, so the checksum is lost.
            std::string oversized = WithChecksum(data + std::string(kLargestDatagram, 'x'));
            return oversized.substr(0, 2049 + Below(oversized.size() - 2049));
        }
        case 2: {
            const std::string record = WithChecksum(data);
            return record.substr(0, Below(record.size()));
        }
        case 3:
            return WithChecksum(data, true);
        case 4:
            return ConnectRecord(std::string(21, static_cast<char>('a' + Below(26))));
        case 5:
            return ConnectRecord(Below(2) ? "bad-name" : "bad name");
        case 6:
            return ConnectRecord(name);
        case 7:
            return WithChecksum(data);
        case 8:
            return WithChecksum("#" + time + ":" + name + ":" + AbsurdCommand());
        default:
            // Absurd header fields.
            return WithChecksum(Below(2) ? "\"99999999999.99999:" + name + ":!4294967296 -1:x"
                                         : "$-1.-1:" + name + "!!::::");
    }
}

size_t SendFromManyPorts(const sockaddr_in& destination, const std::vector<std::string>& datagrams,
                         size_t sourcePorts) {
    sourcePorts = std::max<size_t>(1, sourcePorts);
    size_t sent = 0;
    for (size_t first = 0; first < sourcePorts; first += kSocketsAtOnce) {
        const size_t count = std::min(kSocketsAtOnce, sourcePorts - first);
        std::vector<int> sockets;
        for (size_t i = 0; i < count; ++i) {
            const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            if (fd >= 0) {
                sockets.push_back(fd);
            }
        }
        if (!sockets.empty()) {
            for (size_t index = first; index < datagrams.size(); index += sourcePorts) {
                for (size_t i = 0; i < sockets.size() && index + i < datagrams.size(); ++i) {
                    const std::string& datagram = datagrams[index + i];
                    if (sendto(sockets[i], datagram.data(), datagram.size(), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&destination),
                               sizeof destination) == static_cast<ssize_t>(datagram.size())) {
                        ++sent;
                    }
                }
            }
        }
        for (const int fd : sockets) {
            close(fd);
        }
    }
    return sent;
}

sockaddr_in LoopbackAddress(const std::string& dotted, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, dotted.c_str(), &address.sin_addr);
    return address;
}

}  // namespace ReplayTest
