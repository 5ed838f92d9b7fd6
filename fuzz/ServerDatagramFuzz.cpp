// Hostile datagrams through the server's record path: the record parser, the
// client record updates and the log manager's write queue, into a plain-file
// log channel under a private target root.

#include <netinet/in.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "libreplay/server/ClientDataList.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayLogManager.h"
#include "libreplay/server/TargetRoot.h"

namespace {

// The channel file is emptied this often so that long runs stay small.
constexpr unsigned int kTruncateInterval = 4096;

struct Server {
    Server() {
        char pattern[] = "/tmp/libreplay-fuzz-XXXXXX";
        root = mkdtemp(pattern) != nullptr ? pattern : "/tmp/libreplay-fuzz";
        std::filesystem::create_directories(root + "/fs/usb0");
        std::filesystem::create_directories(root + "/kfsystem/multicore/navi");
        channel = root + "/kfsystem/multicore/navi/Q";
        std::filesystem::remove(channel);
        std::FILE* file = std::fopen(channel.c_str(), "w");
        if (file != nullptr) {
            std::fclose(file);
        }
        ReplayPlatform::SetTargetRoot(root);
        // Nothing reaches the diagnostic log: its per-process cap is not
        // meant for millions of inputs.
        ReplayCore::FileLogger::SetLogginglevel(-1);
    }
    ~Server() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }

    std::string root;
    std::string channel;
    ClientDataList clients;
    ReplayLogManager manager;
    unsigned int runs = 0;
};

Server& Get() {
    static Server server;
    return server;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Server& server = Get();
    // Datagrams longer than this are cut by the server's socket.
    const size_t length = size < 2048 ? size : 2048;
    const std::string record(reinterpret_cast<const char*>(data), length);

    std::string name;
    ReplayCore::MSTime::MSTimeStruct time;
    unsigned int dataType = 0, firstNumber = 0, sequenceNumber = 0;
    unsigned int payloadLength = 0, payloadStart = 0;
    if (ParseClientRecord(record, name, time, dataType, firstNumber, sequenceNumber, payloadLength,
                          payloadStart)) {
        // The port comes from the input too, so clients come and go.
        sockaddr_in address{};
        address.sin_port = static_cast<in_port_t>(length > 1 ? data[1] : 0);
        ClientData* client = server.clients.FindByAddress(address);
        if (client == nullptr && server.clients.Size(true) < 64) {
            client = &server.clients.Append(ClientData(address));
        }
        if (client != nullptr) {
            if (!name.empty()) {
                client->SetClientName(name);
            }
            client->SetPacketSequenceNumber(static_cast<int>(sequenceNumber));
            client->LogMessageReceived();
        }
        server.clients.UpdateClientStatus(true);
        if (payloadLength != 0) {
            server.manager.WriteClientDataToLog(name, time, dataType, sequenceNumber, record,
                                                &server.clients, record[0] == '#');
        }
        if (record[0] == '#') {
            server.manager.Disconnect();
        }
    }
    if (++server.runs % kTruncateInterval == 0) {
        truncate(server.channel.c_str(), 0);
        server.clients.Clear(true);
    }
    return 0;
}
