// A server-side component built against the server headers and libreplay.so
// only: checks that LOGFILE holds ITEM, and that a datagram to its own UDP
// server on ADDRESS reaches the handler and the client table.
//   server_component LOGFILE ITEM ADDRESS
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libreplay/ReplayClientC.h>
#include <libreplay/ReplayVersion.h>
#include <libreplay/server/ClientDataList.h>
#include <libreplay/server/ReplayLogReader.h>
#include <libreplay/server/UDPSocketServer.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

class ProbeServer : public UDPSocketServer {
  public:
    ~ProbeServer() override { StopReadThread(); }

    bool ProcessClientMessage(const char* data, int nBytes, ClientData& client,
                              bool isNewClient) override {
        if (isNewClient) {
            client.SetClientName(std::string(data, static_cast<size_t>(nBytes)));
        }
        m_messages.fetch_add(1);
        return true;
    }

    std::atomic<int> m_messages{0};
};

bool LogHoldsItem(const char* path, const std::string& item) {
    ReplayCore::ReplayLogReader reader;
    if (!reader.Open(path)) {
        std::fprintf(stderr, "cannot read %s: %s\n", path, reader.LastError().c_str());
        return false;
    }
    ReplayCore::LogRecord record;
    int clientRecords = 0;
    bool found = false;
    while (reader.Next(record)) {
        if (record.kind == ReplayCore::LogRecordKind::kClient) {
            ++clientRecords;
            found = found || record.payload.find(item) != std::string::npos;
        }
    }
    std::printf("%s: %d client records\n", path, clientRecords);
    return found;
}

bool ServerSeesDatagram(const char* address) {
    ProbeServer server;
    server.SetBindAddress(address);
    if (server.Open(0, nullptr, 0) < 0) {
        std::fprintf(stderr, "cannot open a server on %s\n", address);
        return false;
    }
    sockaddr_in to{};
    socklen_t length = sizeof to;
    if (getsockname(server.Socket(), reinterpret_cast<sockaddr*>(&to), &length) != 0) {
        std::fprintf(stderr, "cannot find the server's port\n");
        return false;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const char name[] = "probe";
    sendto(fd, name, sizeof name - 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    for (int i = 0; i < 500 && server.m_messages.load() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::close(fd);
    ClientData* client = nullptr;
    {
        ClientDataLock lock(true);
        client = server.GetClientDataList().FindByName("probe");
    }
    return client != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: server_component LOGFILE ITEM ADDRESS\n");
        return 2;
    }
    std::printf("server_component built against libreplay %s, runs with %s\n", LIBREPLAY_VERSION,
                CGetLibraryVersion());
    if (!LogHoldsItem(argv[1], argv[2])) {
        std::fprintf(stderr, "%s does not hold the item '%s'\n", argv[1], argv[2]);
        return 1;
    }
    if (!ServerSeesDatagram(argv[3])) {
        std::fprintf(stderr, "the server did not take the datagram into its client table\n");
        return 1;
    }
    std::printf("server component passed\n");
    return 0;
}
