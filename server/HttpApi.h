#ifndef SERVER_HTTPAPI_H
#define SERVER_HTTPAPI_H

// The web page and its JSON API: the same operations as the control socket
// and standard input, run through ServerControl, plus the log directory's
// catalogue and a stream of status and client figures (Server-Sent Events).
// It runs on threads of its own and reads only snapshots of the server's
// state, so it never holds up the UDP receive path or a replay's schedule.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "server/HttpSecurity.h"
#include "server/LogCatalog.h"
#include "server/ReplayServer.h"
#include "server/ServerControl.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace ReplayServer {

struct HttpSettings {
    std::string address = "127.0.0.1";
    int port = 4480;  // 0: any free port
    // The page's files; `homePage` is served at "/".
    std::string webRoot;
    std::string homePage = "index.html";
    // 0 nothing; 3 refused requests; 4 also failed operations; 5 every request.
    int debugLevel = 4;
    std::string logDirectory;
    // Milliseconds between two events of the live stream.
    int eventIntervalMs = 400;
};

class HttpApi {
  public:
    HttpApi(ReplayServer& server, ServerControl& control, HttpSettings settings, std::string token,
            std::function<void(const std::string&)> log);
    ~HttpApi();
    HttpApi(const HttpApi&) = delete;
    HttpApi& operator=(const HttpApi&) = delete;

    // Binds and starts serving; false with `error` when the address cannot
    // be bound.
    ReplayPlatform::Status Start();
    void Stop();
    // The bound port (the chosen one when asked for 0).
    int Port() const { return m_port; }
    const HttpAccessPolicy& Policy() const { return *m_policy; }

  private:
    void AddRoutes();
    // Host, Origin and token checks before any handler runs; true when the
    // request was refused (and answered).
    bool Refuse(const httplib::Request& request, httplib::Response& response);
    // Runs a command line and answers with its reply as JSON.
    void Command(const std::string& line, httplib::Response& response);
    void Replay(const httplib::Request& request, httplib::Response& response);
    void Events(httplib::Response& response);
    std::string StatusJsonNow();
    void Log(int level, const std::string& text);

    ReplayServer& m_server;
    ServerControl& m_control;
    HttpSettings m_settings;
    std::string m_token;
    std::function<void(const std::string&)> m_log;
    LogCatalog m_catalog;
    std::unique_ptr<HttpAccessPolicy> m_policy;
    std::unique_ptr<httplib::Server> m_http;
    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
    int m_port = 0;
};

}  // namespace ReplayServer

#endif
