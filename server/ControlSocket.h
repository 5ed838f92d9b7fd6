#ifndef SERVER_CONTROLSOCKET_H
#define SERVER_CONTROLSOCKET_H

// A local stream socket through which scripts drive a running server: each
// connection sends one command line and reads the reply until the server
// closes it. The socket file is created with mode 0600.

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace ReplayServer {

class ControlSocket {
  public:
    using Handler = std::function<std::string(const std::string&)>;

    explicit ControlSocket(Handler handler);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    // Binds `path` (a stale socket file there is replaced) and starts
    // accepting; false with `error` on failure.
    bool Start(const std::string& path, std::string& error);
    // Stops accepting, waits for connections in progress, removes the file.
    void Stop();

    // Sends `command` to the server at `path`; the reply, or false with `error`.
    static bool Send(const std::string& path, const std::string& command, std::string& reply,
                     std::string& error);

  private:
    void AcceptLoop();
    void Serve(int connection);

    Handler m_handler;
    std::string m_path;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptThread;
    std::mutex m_connectionsMutex;
    std::list<std::thread> m_connections;
};

}  // namespace ReplayServer

#endif
