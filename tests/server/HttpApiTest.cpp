#include <httplib.h>

#include <filesystem>
#include <set>
#include <nlohmann/json.hpp>

#include "tests/support/EndToEnd.h"

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using ReplayTest::WaitFor;

struct Reply {
    int status = 0;
    Json body;
    std::string text;
};

class HttpApiTest : public ReplayTest::EndToEndTest {
  protected:
    void SetUp() override {
        PrepareTarget();
        ASSERT_FALSE(HasFatalFailure());
        StartLogger();
        ASSERT_FALSE(HasFatalFailure());
        m_server.reset(
            new ReplayTest::Process({ReplayTest::BuiltBinary("server/ReplayManager"), "--bind",
                                     Address(), "--reorder-ms", "1000", "--http", Address() + ":0"},
                                    Root() + "/server.out", m_environment));
        const std::string marker = "web page http://" + Address() + ":";
        ASSERT_TRUE(WaitFor(
            [&] {
                return m_server->Output().find(" (token ") != std::string::npos ||
                       !m_server->Running();
            },
            20s, 20ms))
            << m_server->Output();
        ASSERT_TRUE(m_server->Running()) << m_server->Output();
        const std::string output = m_server->Output();
        m_port = std::stoi(output.substr(output.find(marker) + marker.size()));
        m_token = ReplayTest::ReadFile(Root() + "/tmp/ReplayManager.sock.token");
        m_token = m_token.substr(0, m_token.find('\n'));
        EXPECT_NE(output.find(" (token " + m_token + ","), std::string::npos) << output;
        m_origin = "http://" + Address() + ":" + std::to_string(m_port);
    }

    httplib::Headers Token(const std::string& name, const std::string& value) const {
        return {{"X-Replay-Token", m_token}, {name, value}};
    }
    static Reply Read(const httplib::Result& result) {
        if (!result) {
            return {-1, nullptr, ""};
        }
        return {result->status, Json::parse(result->body, nullptr, false), result->body};
    }
    Reply Get(const std::string& path, const httplib::Headers& headers = {}) {
        httplib::Client client(Address(), m_port);
        client.set_read_timeout(20, 0);
        return Read(client.Get(path, headers));
    }
    Reply Post(const std::string& path, const std::string& body = "{}",
               const httplib::Headers& headers = {}) {
        httplib::Client client(Address(), m_port);
        client.set_read_timeout(30, 0);
        return Read(client.Post(path, headers, body, "application/json"));
    }
    Reply PostWithToken(const std::string& path, const std::string& body = "{}") {
        return Post(path, body, Token("Origin", m_origin));
    }

    int m_port = 0;
    std::string m_token;
    std::string m_origin;
};

TEST_F(HttpApiTest, EveryEndpointItsErrorsAndItsGuards) {
    for (const std::string name : {"two_segments.dat", "truncated_tail.dat"}) {
        std::filesystem::copy_file(std::string(REPLAY_TEST_DATA_DIR) + "/logs/" + name,
                                   Root() + "/fs/usb0/" + name);
    }

    EXPECT_TRUE(Get("/api/clients").body["clients"].is_array());

    const Reply logs = Get("/api/logs");
    ASSERT_EQ(logs.status, 200) << logs.text;
    std::map<std::string, Json> byName;
    for (const Json& log : logs.body["logs"]) {
        byName[log["name"]] = log;
    }
    ASSERT_EQ(byName.count("two_segments.dat"), 1u) << logs.text;
    EXPECT_EQ(byName["two_segments.dat"]["segments"], 2);
    EXPECT_EQ(byName["two_segments.dat"]["clean"], true);
    EXPECT_EQ(byName["two_segments.dat"]["clients"].size(), 3u);
    EXPECT_EQ(byName["truncated_tail.dat"]["clean"], false);

    const Reply detail = Get("/api/logs/two_segments.dat");
    ASSERT_EQ(detail.status, 200) << detail.text;
    EXPECT_EQ(detail.body["timeline"].size(), 2u) << detail.text;

    const Reply damaged = Get("/api/logs/truncated_tail.dat/verify");
    ASSERT_EQ(damaged.status, 200) << damaged.text;
    EXPECT_EQ(damaged.body["clean"], false);
    EXPECT_FALSE(damaged.body["problems"].empty());
    EXPECT_EQ(Get("/api/logs/two_segments.dat/verify").body["clean"], true);

    for (const char* path :
         {"/api/logs/missing.dat", "/api/logs/..%2Fserver.out", "/api/logs/.hidden", "/api/nothing",
          "/../server.out", "/missing.html"}) {
        const Reply reply = Get(path);
        EXPECT_EQ(reply.status, 404) << path;
        EXPECT_TRUE(reply.body.contains("error")) << path << ": " << reply.text;
    }
    const Reply page = Get("/");
    EXPECT_EQ(page.status, 200);
    EXPECT_NE(page.text.find("<html"), std::string::npos);

    const std::vector<std::pair<std::string, std::string>> changes = {
        {"/api/record", "{}"},
        {"/api/stop", "{}"},
        {"/api/replay", R"({"log": "two_segments.dat"})"},
        {"/api/pause", "{}"},
        {"/api/resume", "{}"},
        {"/api/seek", R"({"seconds": 1})"},
        {"/api/step", "{}"},
        {"/api/rate", R"({"rate": 2})"},
        {"/api/loop", R"({"on": true})"},
        {"/api/unknown", "{}"}};
    for (const auto& change : changes) {
        EXPECT_EQ(Post(change.first, change.second).status, 401) << change.first;
        httplib::Headers wrong = {{"X-Replay-Token", std::string(m_token.size(), '0')}};
        EXPECT_EQ(Post(change.first, change.second, wrong).status, 401) << change.first;
        EXPECT_EQ(Post(change.first, change.second, Token("Origin", "http://evil.example")).status,
                  403)
            << change.first;
        const std::string rebound = "evil.example:" + std::to_string(m_port);
        EXPECT_EQ(Post(change.first, change.second, Token("Host", rebound)).status, 403)
            << change.first;
    }
    httplib::Headers rebound = {{"Host", "evil.example:" + std::to_string(m_port)}};
    EXPECT_EQ(Get("/api/status", rebound).status, 403);
    EXPECT_EQ(Get("/api/status", {{"Host", "localhost:" + std::to_string(m_port)}}).status, 200);

    EXPECT_EQ(PostWithToken("/api/pause").status, 409);
    EXPECT_EQ(PostWithToken("/api/seek", "{}").status, 400);
    EXPECT_EQ(PostWithToken("/api/rate", R"({"rate": "fast"})").status, 400);
    EXPECT_EQ(PostWithToken("/api/loop", R"({"on": "yes"})").status, 400);
    EXPECT_EQ(PostWithToken("/api/step", R"({"records": 1, "ms": 5})").status, 400);
    EXPECT_EQ(PostWithToken("/api/record", "not json").status, 400);
    EXPECT_EQ(PostWithToken("/api/replay", "{}").status, 400);
    EXPECT_EQ(PostWithToken("/api/replay", R"({"log": "missing.dat"})").status, 404);
    EXPECT_EQ(PostWithToken("/api/replay", R"({"log": "../server.out"})").status, 404);
    const Reply unknownClient =
        PostWithToken("/api/replay", R"({"log": "two_segments.dat", "clients": ["nobody"]})");
    EXPECT_EQ(unknownClient.status, 409) << unknownClient.text;
    EXPECT_NE(unknownClient.body.value("error", "").find("nobody"), std::string::npos);

    SCOPED_TRACE("record, stop, replay and control through the API");
    StartClients({"alpha", "beta"});
    ASSERT_TRUE(WaitFor([&] { return AllRunning({"alpha", "beta"}); }, 15s, 50ms));

    const Reply record = PostWithToken("/api/record");
    ASSERT_EQ(record.status, 200) << record.text;
    EXPECT_EQ(PostWithToken("/api/record").status, 409);  // one job at a time

    WaitForRecords(40);
    const Reply stop = PostWithToken("/api/stop");
    ASSERT_EQ(stop.status, 200) << stop.text;
    const Json logged = Get("/api/logs/LOGFILE.DAT").body;
    EXPECT_EQ(logged["clients"].get<std::set<std::string>>(),
              (std::set<std::string>{"alpha", "beta"}))
        << logged.dump();
    EXPECT_FALSE(logged["timeline"][0]["items"].contains("ReplayManager")) << logged.dump();
    const Reply replay = PostWithToken(
        "/api/replay", R"({"log": "LOGFILE.DAT", "clients": ["alpha", "beta"], "rate": 1})");
    ASSERT_EQ(replay.status, 200) << replay.text;
    ASSERT_TRUE(WaitFor(
        [&] {
            const Json status = Get("/api/status").body;
            return status.contains("replay") && status["replay"]["records_sent"].get<long>() > 0;
        },
        20s, 50ms));
    EXPECT_EQ(PostWithToken("/api/pause").status, 200);
    EXPECT_EQ(Get("/api/status").body["replay"]["paused"], true);
    EXPECT_EQ(PostWithToken("/api/rate", R"({"rate": 2})").status, 200);
    EXPECT_EQ(PostWithToken("/api/loop", R"({"on": true})").status, 200);
    EXPECT_EQ(PostWithToken("/api/resume").status, 200);
    const Json replaying = Get("/api/status").body["replay"];
    EXPECT_EQ(replaying["paused"], false);
    EXPECT_EQ(replaying["rate"], 2.0);
    EXPECT_EQ(replaying["loop"], true);
    EXPECT_EQ(PostWithToken("/api/stop").status, 200);
    EXPECT_TRUE(
        WaitFor([&] { return !Get("/api/status").body["job_running"].get<bool>(); }, 20s, 50ms));

    SCOPED_TRACE("--no-http and bad --http addresses");
    const std::string control = Root() + "/tmp/second.sock";
    ReplayTest::Process second({ReplayTest::BuiltBinary("server/ReplayManager"), "--bind",
                                Address(), "--port", "4401", "--control", control, "--no-http"},
                               Root() + "/second.out", m_environment);
    ASSERT_TRUE(
        WaitFor([&] { return std::filesystem::exists(control) || !second.Running(); }, 20s, 20ms));
    EXPECT_EQ(second.Output().find("web page"), std::string::npos) << second.Output();
    EXPECT_FALSE(std::filesystem::exists(control + ".token"));

    for (const char* address : {"nowhere", "0.0.0.0:4480", "127.0.0.1:70000"}) {
        ReplayTest::Process bad(
            {ReplayTest::BuiltBinary("server/ReplayManager"), "--http", address},
            Root() + "/bad.out", m_environment);
        EXPECT_EQ(bad.Wait(20s), 2) << address << ": " << bad.Output();
    }
}

}  // namespace
