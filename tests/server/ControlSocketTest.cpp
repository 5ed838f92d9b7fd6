#include "server/ControlSocket.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayServer::ControlSocket;

constexpr auto kDeadline = std::chrono::seconds(10);

ControlSocket::Handler Echo(std::atomic<int>& calls) {
    return [&calls](const std::string& line) {
        ++calls;
        return "did " + line + "\n";
    };
}

std::string Ask(const std::string& path, const std::string& command) {
    std::string reply;
    const ReplayPlatform::Status sent = ControlSocket::Send(path, command, reply);
    return sent.IsOk() ? reply : "failed: " + sent.Message();
}

int UnixSocket(const std::string& path, bool listening = false) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const sockaddr* at = reinterpret_cast<const sockaddr*>(&address);
    const bool ok = listening ? bind(fd, at, sizeof address) == 0 && ::listen(fd, 8) == 0
                              : connect(fd, at, sizeof address) == 0;
    if (!ok) {
        close(fd);
        return -1;
    }
    return fd;
}

// Someone else on this machine (root-only tests act as this user).
constexpr uid_t kOtherUser = 65534;

class ControlSocketTest : public ReplayTest::TargetRootTest {
  protected:
    std::string Path() const { return Root() + "/control.sock"; }
    std::atomic<int> m_calls{0};
};

TEST_F(ControlSocketTest, PrivateSocketWithBoundedConnections) {
    const mode_t previous = umask(0);
    ControlSocket control(Echo(m_calls));
    const ReplayPlatform::Status started = control.Start(Path());
    EXPECT_EQ(umask(previous), 0) << "the process's umask was changed";
    ASSERT_TRUE(started.IsOk()) << started.Message();

    struct stat file;
    ASSERT_EQ(lstat(Path().c_str(), &file), 0);
    EXPECT_TRUE(S_ISSOCK(file.st_mode));
    EXPECT_EQ(file.st_mode & 0777, 0600u);

    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(Ask(Path(), "status"), "did status\n");
    }
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return control.Connections() == 0; }, kDeadline));

    // Idle clients hold a slot each; past the limit the answer is busy.
    std::vector<int> idle;
    for (int i = 0; i < 16; ++i) {
        idle.push_back(UnixSocket(Path()));
    }
    ASSERT_TRUE(ReplayTest::WaitFor([&] { return control.Connections() == 16; }, kDeadline));
    const std::string busy = Ask(Path(), "status");
    EXPECT_EQ(busy.compare(0, 11, "error: busy"), 0) << busy;
    for (const int fd : idle) {
        close(fd);
    }
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return control.Connections() == 0; }, kDeadline));
    EXPECT_EQ(Ask(Path(), "status"), "did status\n");
    control.Stop();
    EXPECT_NE(lstat(Path().c_str(), &file), 0) << "the socket file outlived Stop";
}

TEST_F(ControlSocketTest, SafeDirectoryAndOnlyStaleSocketsReplaced) {
    ControlSocket first(Echo(m_calls));
    ASSERT_EQ(chmod(Root().c_str(), 0777), 0);
    std::string error = first.Start(Path()).Message();
    EXPECT_NE(error.find("not sticky"), std::string::npos) << error;
    ASSERT_EQ(chmod(Root().c_str(), 01777), 0);

    WriteTargetFile("/control.sock", "keep me");
    error = first.Start(Path()).Message();
    EXPECT_NE(error.find("not a socket"), std::string::npos) << error;
    EXPECT_EQ(ReadTargetFile("/control.sock"), "keep me");
    ASSERT_EQ(unlink(Path().c_str()), 0);
    WriteTargetFile("/target.txt", "keep me too");
    ASSERT_EQ(symlink((Root() + "/target.txt").c_str(), Path().c_str()), 0);
    EXPECT_FALSE(first.Start(Path()).IsOk());
    EXPECT_EQ(ReadTargetFile("/target.txt"), "keep me too");
    ASSERT_EQ(unlink(Path().c_str()), 0);

    const int stale = UnixSocket(Path(), true);
    ASSERT_GE(stale, 0);
    close(stale);
    ASSERT_TRUE(first.Start(Path()).IsOk());

    std::atomic<int> secondCalls{0};
    ControlSocket second(Echo(secondCalls));
    error = second.Start(Path()).Message();
    EXPECT_NE(error.find("another server"), std::string::npos) << error;
    second.Stop();
    EXPECT_EQ(Ask(Path(), "ping"), "did ping\n");
    EXPECT_EQ(secondCalls, 0);

    const std::string link = Root() + "/link.sock";
    ASSERT_EQ(symlink(Path().c_str(), link.c_str()), 0);
    std::string reply;
    error = ControlSocket::Send(link, "status", reply).Message();
    EXPECT_NE(error.find("symbolic link"), std::string::npos) << error;
    EXPECT_EQ(m_calls, 1);
}

TEST_F(ControlSocketTest, OtherUsersCanNeitherSquatNorConnect) {
    const passwd* other = getpwuid(kOtherUser);
    if (geteuid() != 0 || other == nullptr) {
        GTEST_SKIP() << "needs root and a user " << kOtherUser << " to act as";
    }
    const std::string otherName = other->pw_name;
    ASSERT_EQ(chmod(Root().c_str(), 01777), 0);
    const std::string path = Path();
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    // Both forked before any thread exists.
    ReplayTest::ChildProcess squatter([&] {
        const bool switched = setgid(kOtherUser) == 0 && setuid(kOtherUser) == 0;
        const int fd = switched ? UnixSocket(path, true) : -1;
        if (fd < 0 || chmod(path.c_str(), 0666) != 0) {
            return 3;
        }
        (void)!write(ready[1], "x", 1);
        for (;;) {
            const int connection = accept(fd, nullptr, nullptr);
            const char invented[] = "recording started (invented)\n";
            (void)!send(connection, invented, sizeof invented - 1, MSG_NOSIGNAL);
            close(connection);
        }
    });
    ReplayTest::ChildProcess client([&] {
        char signal;
        if (setgid(kOtherUser) != 0 || setuid(kOtherUser) != 0 || read(go[0], &signal, 1) != 1) {
            return 2;
        }
        const int fd = UnixSocket(path);
        // The server may refuse and close first: no SIGPIPE.
        (void)!send(fd, "quit\n", 5, MSG_NOSIGNAL);
        char reply[64] = {};
        size_t got = 0;
        ssize_t n;
        while (got < sizeof reply - 1 && (n = read(fd, reply + got, sizeof reply - 1 - got)) > 0) {
            got += static_cast<size_t>(n);
        }
        return std::strncmp(reply, "error: permission denied", 24) == 0 ? 0 : 3;
    });
    close(ready[1]);
    char signal = 0;
    ASSERT_EQ(read(ready[0], &signal, 1), 1) << "the squatter could not bind " << path;
    close(ready[0]);

    ControlSocket control(Echo(m_calls));
    std::string error = control.Start(path).Message();
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_NE(error.find(otherName), std::string::npos) << error;
    std::string reply;
    error = ControlSocket::Send(path, "record 5", reply).Message();
    EXPECT_NE(error.find(otherName), std::string::npos) << error << reply;
    const std::string command = std::string(REPLAY_BINARY_DIR) +
                                "/server/ReplayManager --control " + path +
                                " send status >/dev/null 2>&1";
    const int exitStatus = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) != 0) << exitStatus;

    squatter.Kill();
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_TRUE(control.Start(path).IsOk());
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(write(go[1], "x", 1), 1);
    EXPECT_EQ(client.Wait(kDeadline), 0) << "2: cannot act as another user, 3: no refusal read";
    close(go[0]);
    close(go[1]);
    EXPECT_EQ(m_calls, 0);
    EXPECT_EQ(Ask(path, "status"), "did status\n");
}

}  // namespace
