#include "server/HttpSecurity.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/TestSupport.h"

namespace {

using ReplayServer::HttpAccessPolicy;

TEST(HttpAccessPolicyTest, HostMustNameTheBoundAddressAndPort) {
    const HttpAccessPolicy loopback("t", "127.0.0.1", 4480);
    EXPECT_TRUE(loopback.HostAllowed("127.0.0.1:4480"));
    EXPECT_TRUE(loopback.HostAllowed("localhost:4480"));
    EXPECT_TRUE(loopback.HostAllowed("LocalHost:4480"));
    EXPECT_FALSE(loopback.HostAllowed("127.0.0.1:4481"));
    EXPECT_FALSE(loopback.HostAllowed("127.0.0.1"));
    // A rebinding name resolves to the right address but is not it.
    EXPECT_FALSE(loopback.HostAllowed("attacker.example:4480"));
    EXPECT_FALSE(loopback.HostAllowed("localhost.attacker.example:4480"));
    EXPECT_FALSE(loopback.HostAllowed(""));

    const HttpAccessPolicy lan("t", "10.1.2.3", 8000);
    EXPECT_TRUE(lan.HostAllowed("10.1.2.3:8000"));
    EXPECT_FALSE(lan.HostAllowed("localhost:8000"));
    EXPECT_TRUE(lan.ReadNeedsToken());
    EXPECT_FALSE(loopback.ReadNeedsToken());
    EXPECT_TRUE(HttpAccessPolicy::IsLoopbackAddress("127.200.3.4"));
    EXPECT_FALSE(HttpAccessPolicy::IsLoopbackAddress("0.0.0.0"));
    EXPECT_FALSE(HttpAccessPolicy::IsLoopbackAddress("128.0.0.1"));
    EXPECT_FALSE(HttpAccessPolicy::IsLoopbackAddress("127.0.0.1.example"));
}

TEST(HttpAccessPolicyTest, OnlyTheServersOwnOriginOrNoneIsAccepted) {
    const HttpAccessPolicy policy("t", "127.0.0.1", 4480);
    EXPECT_TRUE(policy.OriginAllowed(""));
    EXPECT_TRUE(policy.OriginAllowed("http://127.0.0.1:4480"));
    EXPECT_TRUE(policy.OriginAllowed("http://localhost:4480"));
    EXPECT_FALSE(policy.OriginAllowed("null"));  // a file:// page or sandboxed frame
    EXPECT_FALSE(policy.OriginAllowed("https://127.0.0.1:4480"));
    EXPECT_FALSE(policy.OriginAllowed("http://127.0.0.1:8080"));
    EXPECT_FALSE(policy.OriginAllowed("http://evil.example"));
    EXPECT_FALSE(policy.OriginAllowed("http://127.0.0.1:4480.evil.example"));
}

TEST(HttpAccessPolicyTest, TokensMatchOnlyWhole) {
    const std::string token = HttpAccessPolicy::GenerateToken();
    ASSERT_EQ(token.size(), 32u);
    EXPECT_NE(token, HttpAccessPolicy::GenerateToken());
    const HttpAccessPolicy policy(token, "127.0.0.1", 1);
    EXPECT_TRUE(policy.TokenMatches(token));
    EXPECT_FALSE(policy.TokenMatches(token.substr(0, 31)));
    EXPECT_FALSE(policy.TokenMatches(token + "0"));
    EXPECT_FALSE(policy.TokenMatches(""));
    EXPECT_FALSE(HttpAccessPolicy("", "127.0.0.1", 1).TokenMatches(""));
}

using HttpTokenFileTest = ReplayTest::TargetRootTest;

TEST_F(HttpTokenFileTest, ReplacesAnyOldFileWithAPrivateOne) {
    const std::string path = Root() + "/token";
    const std::string target = Root() + "/elsewhere";
    ReplayTest::WriteFile(target, "keep");
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    ASSERT_TRUE(HttpAccessPolicy::WriteTokenFile(path, "abc").IsOk());
    EXPECT_EQ(ReplayTest::ReadFile(target), "keep");
    EXPECT_EQ(ReplayTest::ReadFile(path), "abc\n");
    struct stat info {};
    ASSERT_EQ(lstat(path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    const ReplayPlatform::Status missing =
        HttpAccessPolicy::WriteTokenFile(Root() + "/missing/token", "abc");
    EXPECT_FALSE(missing.IsOk());
    EXPECT_NE(missing.Message().find("missing"), std::string::npos);
}

}  // namespace
