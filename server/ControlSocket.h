#ifndef SERVER_CONTROLSOCKET_H
#define SERVER_CONTROLSOCKET_H

// A local stream socket through which scripts drive a running server: each
// connection sends one command line and reads the reply until the server
// closes it. Only the server's own user (and root) may use it: the socket
// file is mode 0600 from the moment it exists, and each connection's peer
// credentials are checked as well.

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "reference/src/status.h"

namespace ReplayServer {

class ControlSocket {
  public:
    using Handler = std::function<std::string(const std::string&)>;

    explicit ControlSocket(Handler handler);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    // Binds `path` and starts accepting. A
    // socket file there that nobody listens on is replaced; a live socket or
    // any other kind of file is left alone and is an error that names its
    // owner. The directory must belong to this user or root and be sticky
    // if others may write to it.
    ReplayPlatform::Status Start(const std::string& path);
    // Stops accepting, waits for connections in progress, removes the file.
    void Stop();

    // Connections being served or ended but not yet joined.
    size_t Connections() {
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        return m_connections.size();
    }

    // Sends `command` to the server at `path` and reads the reply. A link at
    // `path` is not followed, and a socket served by any user but this one
    // or root is refused before anything is sent.
    static ReplayPlatform::Status Send(const std::string& path, const std::string& command,
                                       std::string& reply);

  private:
    struct Connection {
        std::thread thread;
        std::atomic<bool> finished{false};
    };

    void AcceptLoop();
    void Serve(int connection, std::atomic<bool>& finished);
    // Joins the connections that have ended; with the list locked.
    void ReapFinishedConnections();

    Handler m_handler;
    std::string m_path;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptThread;
    std::mutex m_connectionsMutex;
    std::list<Connection> m_connections;
};

}  // namespace ReplayServer

#endif
