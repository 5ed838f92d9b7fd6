#include "server/HttpApi.h"

#include <httplib.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "server/CommandWords.h"
#include "server/ServerStatusJson.h"

namespace ReplayServer {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kJsonType = "application/json";
// Live streams served at once; each holds one of the worker threads.
constexpr int kMaxEventStreams = 4;
constexpr int kWorkerThreads = 8;

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void SendJson(httplib::Response& response, int status, const Json& json) {
    response.status = status;
    response.set_content(Dump(json) + "\n", kJsonType);
}

void SendError(httplib::Response& response, int status, const std::string& message) {
    SendJson(response, status, Json{{"error", message}});
}

std::string TrimLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

// The request's JSON body; an empty body reads as an empty object. False
// (and answered) when it is not a JSON object.
bool ReadBody(const httplib::Request& request, httplib::Response& response, Json& body) {
    if (request.body.empty()) {
        body = Json::object();
        return true;
    }
    body = Json::parse(request.body, nullptr, false);
    if (body.is_discarded() || !body.is_object()) {
        SendError(response, 400, "the body is not a JSON object");
        return false;
    }
    return true;
}

// A number from the body as command text; false when present but not a
// number.
bool NumberWord(const Json& body, const char* key, std::string& word) {
    const auto found = body.find(key);
    if (found == body.end() || found->is_null()) {
        word.clear();
        return true;
    }
    if (!found->is_number()) {
        return false;
    }
    std::ostringstream text;
    text << found->get<double>();
    word = text.str();
    return true;
}

const char* ContentType(const std::string& path) {
    const size_t dot = path.rfind('.');
    const std::string extension = dot == std::string::npos ? "" : path.substr(dot + 1);
    if (extension == "html")
        return "text/html; charset=utf-8";
    if (extension == "js")
        return "text/javascript; charset=utf-8";
    if (extension == "css")
        return "text/css; charset=utf-8";
    if (extension == "svg")
        return "image/svg+xml";
    if (extension == "png")
        return "image/png";
    if (extension == "json")
        return kJsonType;
    return "application/octet-stream";
}

bool ReadWholeFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    content = text.str();
    return true;
}

}  // namespace

#if defined(__SANITIZE_THREAD__)
// The HTTP library comes prebuilt without ThreadSanitizer, so its internal
// locking is invisible to it and its worker threads look racy; what runs in
// our handlers is still checked.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libcpp-httplib.so\n";
}
#endif

HttpApi::HttpApi(ReplayServer& server, ServerControl& control, HttpSettings settings,
                 std::string token, std::function<void(const std::string&)> log)
    : m_server(server),
      m_control(control),
      m_settings(std::move(settings)),
      m_token(std::move(token)),
      m_log(std::move(log)),
      m_catalog(m_settings.logDirectory) {}

HttpApi::~HttpApi() {
    Stop();
}

ReplayPlatform::Status HttpApi::Start() {
    using ReplayPlatform::Status;
    m_http = std::make_unique<httplib::Server>();
    m_http->new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
    m_http->set_keep_alive_timeout(2);
    m_http->set_payload_max_length(64 * 1024);
    if (m_settings.port == 0) {
        m_port = m_http->bind_to_any_port(m_settings.address);
        if (m_port <= 0) {
            return Status::Failure("cannot listen on " + m_settings.address + " for the web page");
        }
    } else {
        if (!m_http->bind_to_port(m_settings.address, m_settings.port)) {
            return Status::Failure("cannot listen on " + m_settings.address + ":" +
                                   std::to_string(m_settings.port) + " for the web page");
        }
        m_port = m_settings.port;
    }
    m_policy = std::make_unique<HttpAccessPolicy>(m_token, m_settings.address, m_port);
    AddRoutes();
    m_thread = std::thread([this] { m_http->listen_after_bind(); });
    return Status::Ok();
}

void HttpApi::Stop() {
    m_stopping.store(true);
    if (m_http) {
        m_http->stop();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void HttpApi::Log(int level, const std::string& text) {
    if (level <= m_settings.debugLevel && m_log) {
        m_log("ReplayManager: http: " + text + "\n");
    }
}

bool HttpApi::Refuse(const httplib::Request& request, httplib::Response& response) {
    const HttpAccessPolicy& policy = *m_policy;
    if (!policy.HostAllowed(request.get_header_value("Host"))) {
        SendError(response, 403,
                  "Host '" + request.get_header_value("Host").substr(0, 80) +
                      "' is not this server's address");
        return true;
    }
    const bool changes = request.method != "GET" && request.method != "HEAD";
    if (changes && !policy.OriginAllowed(request.get_header_value("Origin"))) {
        SendError(response, 403, "requests from another site's page are refused");
        return true;
    }
    const bool api = request.path.compare(0, 5, "/api/") == 0;
    if (!changes && (!api || !policy.ReadNeedsToken())) {
        return false;
    }
    std::string offered = request.get_header_value("X-Replay-Token");
    const std::string authorization = request.get_header_value("Authorization");
    if (offered.empty() && authorization.compare(0, 7, "Bearer ") == 0) {
        offered = authorization.substr(7);
    }
    // An EventSource cannot set headers: reads may carry it in the query.
    if (offered.empty() && !changes) {
        offered = request.get_param_value("token");
    }
    if (!policy.TokenMatches(offered)) {
        response.set_header("WWW-Authenticate", "Bearer");
        SendError(
            response, 401,
            offered.empty() ? "this request needs the server's token" : "the token does not match");
        return true;
    }
    return false;
}

void HttpApi::Command(const std::string& line, httplib::Response& response) {
    const std::string reply = TrimLine(m_control.Execute(line));
    const std::string prefix = "error: ";
    if (reply.compare(0, prefix.size(), prefix) == 0) {
        const std::string message = reply.substr(prefix.size());
        SendError(response, message.compare(0, 6, "usage:") == 0 ? 400 : 409, message);
        return;
    }
    SendJson(response, 200, Json{{"ok", true}, {"message", reply}});
}

std::string HttpApi::StatusJsonNow() {
    const ReplayPosition position = m_control.Position();
    return TrimLine(
        StatusJson(m_server, m_control.JobRunning(), position.started ? &position : nullptr));
}

void HttpApi::Replay(const httplib::Request& request, httplib::Response& response) {
    Json body;
    if (!ReadBody(request, response, body)) {
        return;
    }
    const Json log = body.value("log", Json());
    if (!log.is_string()) {
        SendError(response, 400, "\"log\" names a log of the log directory");
        return;
    }
    const std::string path = m_catalog.PathOf(log.get<std::string>());
    if (path.empty()) {
        SendError(response, 404, "no log named '" + log.get<std::string>() + "'");
        return;
    }
    std::string line = "replay " + QuoteCommandWord(path);
    for (const char* key : {"segment", "from", "to"}) {
        std::string word;
        if (!NumberWord(body, key, word)) {
            SendError(response, 400, std::string("\"") + key + "\" must be a number");
            return;
        }
        if (!word.empty()) {
            line += std::string(" --") + key + " " + word;
        }
    }
    const Json clients = body.value("clients", Json());
    if (clients.is_array() && !clients.empty()) {
        std::string names;
        for (const Json& name : clients) {
            if (!name.is_string() || name.get<std::string>().find(',') != std::string::npos) {
                SendError(response, 400, "\"clients\" is a list of client names");
                return;
            }
            names += (names.empty() ? "" : ",") + name.get<std::string>();
        }
        line += " --clients " + QuoteCommandWord(names);
    } else if (!clients.is_null() && !clients.is_array()) {
        SendError(response, 400, "\"clients\" is a list of client names");
        return;
    }
    if (body.value("loop", false)) {
        line += " --loop";
    }
    if (body.value("no_state", false)) {
        line += " --no-state";
    }
    std::string rateLine;
    const Json rate = body.value("rate", Json());
    if (rate.is_number()) {
        std::ostringstream text;
        text << rate.get<double>();
        rateLine = "rate " + text.str();
    } else if (rate == "max") {
        rateLine = "rate max";
    } else if (!rate.is_null()) {
        SendError(response, 400, "\"rate\" is a number (0.1 to 10) or \"max\"");
        return;
    }
    Command(line, response);
    if (response.status != 200 || rateLine.empty()) {
        return;
    }
    // A rate applies once the replay has its clients and has started.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!m_control.Position().started && m_control.JobRunning() && !m_stopping.load() &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const Json started = Json::parse(response.body);
    Command(rateLine, response);
    if (response.status == 200) {
        SendJson(response, 200,
                 Json{{"ok", true},
                      {"message", started.value("message", "") + "\n" +
                                      Json::parse(response.body).value("message", "")}});
    }
}

void HttpApi::Events(httplib::Response& response) {
    static std::atomic<int> streams{0};
    if (streams.fetch_add(1) >= kMaxEventStreams) {
        streams.fetch_sub(1);
        Log(3, "live stream refused: " + std::to_string(kMaxEventStreams) + " already open");
        SendError(response, 503, "too many live streams open");
        return;
    }
    response.set_header("Cache-Control", "no-store");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this](size_t offset, httplib::DataSink& sink) {
            if (offset > 0) {
                // Waits in short slices so that a stop ends the stream soon.
                const auto until = std::chrono::steady_clock::now() +
                                   std::chrono::milliseconds(m_settings.eventIntervalMs);
                while (std::chrono::steady_clock::now() < until) {
                    if (m_stopping.load() || !sink.is_writable()) {
                        return false;
                    }
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                }
            }
            if (m_stopping.load()) {
                return false;
            }
            const std::string event = "event: status\ndata: " + StatusJsonNow() + "\n\n";
            return sink.write(event.data(), event.size());
        },
        [](bool) { streams.fetch_sub(1); });
}

void HttpApi::AddRoutes() {
    httplib::Server& http = *m_http;
    http.set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
            if (Refuse(request, response)) {
                Log(3, "refused " + request.method + " " + request.path + ": " + response.body);
                return httplib::Server::HandlerResponse::Handled;
            }
            return httplib::Server::HandlerResponse::Unhandled;
        });
    // httplib's own refusals (a POST without a length, a body too large)
    // answer in JSON like the rest.
    http.set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) {
            SendError(
                response, response.status,
                "the request was refused (HTTP status " + std::to_string(response.status) + ")");
        }
    });
    http.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
        if (response.status >= 400 && response.status != 401 && response.status != 403) {
            Log(4, request.method + " " + request.path + " " + std::to_string(response.status) +
                       " " + TrimLine(response.body));
        } else {
            Log(5, request.method + " " + request.path + " " + std::to_string(response.status));
        }
    });

    http.Get("/api/status", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(StatusJsonNow() + "\n", kJsonType);
    });
    http.Get("/api/clients", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(ClientsJson(m_server), kJsonType);
    });
    http.Get("/api/events",
             [this](const httplib::Request&, httplib::Response& response) { Events(response); });
    http.Get("/api/logs", [this](const httplib::Request&, httplib::Response& response) {
        SendJson(response, 200,
                 Json{{"directory", m_catalog.Directory()}, {"logs", m_catalog.List()}});
    });
    http.Get(R"(/api/logs/([^/]+))",
             [this](const httplib::Request& request, httplib::Response& response) {
                 Json detail;
                 const ReplayPlatform::Status found = m_catalog.Detail(request.matches[1], detail);
                 if (!found.IsOk()) {
                     SendError(response, 404, found.Message());
                     return;
                 }
                 SendJson(response, 200, detail);
             });
    http.Get(R"(/api/logs/([^/]+)/verify)",
             [this](const httplib::Request& request, httplib::Response& response) {
                 Json result;
                 const ReplayPlatform::Status found = m_catalog.Verify(request.matches[1], result);
                 if (!found.IsOk()) {
                     SendError(response, 404, found.Message());
                     return;
                 }
                 SendJson(response, 200, result);
             });

    http.Post("/api/record", [this](const httplib::Request& request, httplib::Response& response) {
        Json body;
        std::string seconds;
        if (!ReadBody(request, response, body)) {
            return;
        }
        if (!NumberWord(body, "duration", seconds)) {
            SendError(response, 400, "\"duration\" must be a number of seconds");
            return;
        }
        Command(seconds.empty() ? "record" : "record " + seconds, response);
    });
    for (const char* name : {"stop", "pause", "resume"}) {
        http.Post(std::string("/api/") + name,
                  [this, name](const httplib::Request&, httplib::Response& response) {
                      Command(name, response);
                  });
    }
    http.Post("/api/replay", [this](const httplib::Request& request, httplib::Response& response) {
        Replay(request, response);
    });
    http.Post("/api/seek", [this](const httplib::Request& request, httplib::Response& response) {
        Json body;
        std::string seconds;
        if (!ReadBody(request, response, body)) {
            return;
        }
        if (!NumberWord(body, "seconds", seconds) || seconds.empty()) {
            SendError(response, 400, "\"seconds\" (from the replay's start) is needed");
            return;
        }
        Command("seek " + seconds, response);
    });
    http.Post("/api/step", [this](const httplib::Request& request, httplib::Response& response) {
        Json body;
        std::string records;
        std::string ms;
        if (!ReadBody(request, response, body)) {
            return;
        }
        if (!NumberWord(body, "records", records) || !NumberWord(body, "ms", ms) ||
            (!records.empty() && !ms.empty())) {
            SendError(response, 400, "either \"records\" or \"ms\", a number");
            return;
        }
        Command(ms.empty() ? "step " + (records.empty() ? std::string("1") : records)
                           : "step " + ms + " ms",
                response);
    });
    http.Post("/api/rate", [this](const httplib::Request& request, httplib::Response& response) {
        Json body;
        if (!ReadBody(request, response, body)) {
            return;
        }
        const Json rate = body.value("rate", Json());
        if (rate == "max") {
            Command("rate max", response);
            return;
        }
        std::string word;
        if (!rate.is_number() || !NumberWord(body, "rate", word)) {
            SendError(response, 400, "\"rate\" is a number (0.1 to 10) or \"max\"");
            return;
        }
        Command("rate " + word, response);
    });
    http.Post("/api/loop", [this](const httplib::Request& request, httplib::Response& response) {
        Json body;
        if (!ReadBody(request, response, body)) {
            return;
        }
        const Json on = body.value("on", Json());
        if (!on.is_boolean()) {
            SendError(response, 400, "\"on\" is true or false");
            return;
        }
        Command(on.get<bool>() ? "loop on" : "loop off", response);
    });

    // Anything else under /api/ is unknown; the rest are the page's files.
    const auto unknown = [](const httplib::Request& request, httplib::Response& response) {
        SendError(response, 404, "no such API: " + request.method + " " + request.path);
    };
    http.Get(R"(/api/.*)", unknown);
    http.Post(R"(/api/.*)", unknown);
    http.Get(R"(/(.*))", [this](const httplib::Request& request, httplib::Response& response) {
        std::string relative = request.matches[1];
        if (relative.empty()) {
            relative = m_settings.homePage;
        }
        // Only plain names below the web root: no "..", no hidden files.
        if (relative.find("..") != std::string::npos || relative[0] == '/' ||
            relative.find("/.") != std::string::npos || relative[0] == '.') {
            SendError(response, 404, "no such file");
            return;
        }
        std::string content;
        struct stat info {};
        std::string path = m_settings.webRoot + "/" + relative;
        // The charting library: copied beside the page when installed, else
        // where the setup script's npm put it.
        const std::string vendor = "vendor/";
        if (relative.compare(0, vendor.size(), vendor) == 0 && stat(path.c_str(), &info) != 0) {
            path =
                m_settings.webRoot + "/node_modules/uplot/dist/" + relative.substr(vendor.size());
        }
        if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
            !ReadWholeFile(path, content)) {
            SendError(response, 404, "no such file: " + relative);
            return;
        }
        response.set_header("Cache-Control", "no-cache");
        response.set_content(content, ContentType(relative));
    });
}

}  // namespace ReplayServer
