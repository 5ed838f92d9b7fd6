#include "server/ControlSocket.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

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

sockaddr_un UnixAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// Connects and sends nothing; the connection stays open until destroyed.
class IdleConnection {
  public:
    explicit IdleConnection(const std::string& path) {
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = UnixAddress(path);
        connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    ~IdleConnection() { close(m_fd); }
    std::string Read() const {
        char buffer[256];
        const ssize_t n = recv(m_fd, buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
    }

  private:
    int m_fd = -1;
};

class ControlSocketTest : public ReplayTest::TargetRootTest {
  protected:
    std::string Path() const { return Root() + "/control.sock"; }
    std::atomic<int> m_calls{0};
};

TEST_F(ControlSocketTest, SocketFileIsPrivateWhateverTheUmask) {
    const mode_t previous = umask(0);
    ControlSocket control(Echo(m_calls));
    const ReplayPlatform::Status started = control.Start(Path());
    EXPECT_EQ(umask(previous), 0) << "the process's umask was changed";
    ASSERT_TRUE(started.IsOk()) << started.Message();

    struct stat file;
    ASSERT_EQ(lstat(Path().c_str(), &file), 0);
    EXPECT_TRUE(S_ISSOCK(file.st_mode));
    EXPECT_EQ(file.st_mode & 0777, 0600u);
    EXPECT_EQ(Ask(Path(), "status"), "did status\n");
    control.Stop();
    EXPECT_NE(lstat(Path().c_str(), &file), 0) << "the socket file outlived Stop";
}

TEST_F(ControlSocketTest, ReplacesOnlyStaleSockets) {
    // A file that is not a socket, or a link to one, is never removed.
    WriteTargetFile("/control.sock", "keep me");
    ControlSocket first(Echo(m_calls));
    std::string error = first.Start(Path()).Message();
    EXPECT_NE(error.find("not a socket"), std::string::npos) << error;
    EXPECT_EQ(ReadTargetFile("/control.sock"), "keep me");
    ASSERT_EQ(unlink(Path().c_str()), 0);
    WriteTargetFile("/target.txt", "keep me too");
    ASSERT_EQ(symlink((Root() + "/target.txt").c_str(), Path().c_str()), 0);
    EXPECT_FALSE(first.Start(Path()).IsOk());
    EXPECT_EQ(ReadTargetFile("/target.txt"), "keep me too");
    ASSERT_EQ(unlink(Path().c_str()), 0);

    // A socket left behind by a server that died is replaced.
    {
        const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = UnixAddress(Path());
        ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        close(stale);
    }
    ASSERT_TRUE(first.Start(Path()).IsOk());

    // A live server's socket is not taken over.
    std::atomic<int> secondCalls{0};
    ControlSocket second(Echo(secondCalls));
    error = second.Start(Path()).Message();
    EXPECT_NE(error.find("another server"), std::string::npos) << error;
    second.Stop();
    EXPECT_EQ(Ask(Path(), "ping"), "did ping\n");
    EXPECT_EQ(secondCalls, 0);
}

TEST_F(ControlSocketTest, RefusesOtherUsersEvenWhenTheFileIsOpenedUp) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    const uid_t kOther = 65534;
    int go[2];
    int result[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(result), 0);
    const std::string path = Path();
    // The child is made before any thread exists, then waits for the socket.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(go[1]);
        close(result[0]);
        char signal;
        if (setgid(kOther) != 0 || setuid(kOther) != 0 || read(go[0], &signal, 1) != 1) {
            _exit(2);
        }
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = UnixAddress(path);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            _exit(3);
        }
        const char command[] = "quit\n";
        // The server may refuse and close first: no SIGPIPE, read its answer.
        (void)!send(fd, command, sizeof command - 1, MSG_NOSIGNAL);
        char reply[256];
        ssize_t n;
        while ((n = read(fd, reply, sizeof reply)) > 0) {
            (void)!write(result[1], reply, static_cast<size_t>(n));
        }
        _exit(0);
    }
    close(go[0]);
    close(result[1]);

    ControlSocket control(Echo(m_calls));
    ASSERT_TRUE(control.Start(path).IsOk());
    // Someone widened the directory and the file: the credentials still count.
    ASSERT_EQ(chmod(Root().c_str(), 0711), 0);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(write(go[1], "x", 1), 1);
    std::string reply;
    char buffer[256];
    ssize_t n;
    while ((n = read(result[0], buffer, sizeof buffer)) > 0) {
        reply.append(buffer, static_cast<size_t>(n));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(go[1]);
    close(result[0]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(reply.compare(0, 24, "error: permission denied"), 0) << reply;
    EXPECT_EQ(m_calls, 0);
    // The server's own user (root here) is served.
    EXPECT_EQ(Ask(path, "status"), "did status\n");
}

// A user of its own for the duration of one test, removed again after it.
class TemporaryUser {
  public:
    TemporaryUser() : m_name("rpsq" + std::to_string(getpid() % 100000)) {
        const std::string add = "useradd --system --no-create-home --shell /usr/sbin/nologin " +
                                m_name + " >/dev/null 2>&1";
        if (std::system(add.c_str()) != 0) {
            return;
        }
        const passwd* entry = getpwnam(m_name.c_str());
        if (entry != nullptr) {
            m_uid = entry->pw_uid;
            m_gid = entry->pw_gid;
            m_created = true;
        }
    }
    ~TemporaryUser() {
        if (m_created) {
            (void)!std::system(("userdel " + m_name + " >/dev/null 2>&1").c_str());
        }
    }
    bool Created() const { return m_created; }
    const std::string& Name() const { return m_name; }
    // Drops every privilege of this process for the user's; false on failure.
    bool Become() const {
        return setgroups(0, nullptr) == 0 && setgid(m_gid) == 0 && setuid(m_uid) == 0;
    }

  private:
    std::string m_name;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    bool m_created = false;
};

// Another local user binds the control socket's path first, in a shared
// sticky directory like /tmp, and answers every command with an invented
// reply. The server must not start, naming the path and the squatter, and
// the sending side must refuse to believe the squatter.
TEST_F(ControlSocketTest, SocketSquattedByAnotherUserIsRefusedAtBothEnds) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to create a second user and act as it";
    }
    TemporaryUser squatter;
    if (!squatter.Created()) {
        GTEST_SKIP() << "useradd could not create a second user";
    }
    ASSERT_EQ(chmod(Root().c_str(), 01777), 0);
    const std::string path = Path();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    // Forked before this process has any thread.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        if (!squatter.Become()) {
            _exit(2);
        }
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = UnixAddress(path);
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            chmod(path.c_str(), 0666) != 0 || listen(fd, 8) != 0) {
            _exit(3);
        }
        (void)!write(ready[1], "x", 1);
        for (;;) {
            const int connection = accept(fd, nullptr, nullptr);
            const char invented[] = "recording started (invented)\n";
            (void)!send(connection, invented, sizeof invented - 1, MSG_NOSIGNAL);
            close(connection);
        }
    }
    close(ready[1]);
    char signal = 0;
    const bool squatting = read(ready[0], &signal, 1) == 1;
    close(ready[0]);

    ControlSocket control(Echo(m_calls));
    const ReplayPlatform::Status started =
        squatting ? control.Start(path) : ReplayPlatform::Status::Failure("not tried");
    std::string reply;
    const ReplayPlatform::Status sent = ControlSocket::Send(path, "record 5", reply);
    const std::string command = std::string(REPLAY_BINARY_DIR) +
                                "/server/ReplayManager --control " + path +
                                " send status >/dev/null 2>&1";
    const int exitStatus = std::system(command.c_str());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    ASSERT_TRUE(squatting) << "the squatter could not bind " << path;
    const std::string& error = started.Message();
    EXPECT_FALSE(started.IsOk());
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_NE(error.find(squatter.Name()), std::string::npos) << error;
    EXPECT_FALSE(sent.IsOk()) << reply;
    EXPECT_NE(sent.Message().find(squatter.Name()), std::string::npos) << sent.Message();
    EXPECT_TRUE(WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) != 0) << exitStatus;
}

// Who may put a file at the socket's path is decided by its directory; a
// link at the path is never followed by either end.
TEST_F(ControlSocketTest, UnsafeDirectoryAndLinksAreRefused) {
    ControlSocket control(Echo(m_calls));
    ASSERT_EQ(chmod(Root().c_str(), 0777), 0);
    std::string error = control.Start(Path()).Message();
    EXPECT_NE(error.find("not sticky"), std::string::npos) << error;
    ASSERT_EQ(chmod(Root().c_str(), 01777), 0);
    const std::string real = Root() + "/real.sock";
    ASSERT_TRUE(control.Start(real).IsOk());
    EXPECT_EQ(Ask(real, "status"), "did status\n");

    ASSERT_EQ(symlink(real.c_str(), Path().c_str()), 0);
    std::string reply;
    error = ControlSocket::Send(Path(), "status", reply).Message();
    EXPECT_NE(error.find("symbolic link"), std::string::npos) << error;
    EXPECT_EQ(m_calls, 1);
    control.Stop();
}

TEST_F(ControlSocketTest, ConnectionsAreBoundedAndReleased) {
    ControlSocket control(Echo(m_calls));
    ASSERT_TRUE(control.Start(Path()).IsOk());
    // A script polling the server: every connection's thread is released.
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(Ask(Path(), "status"), "did status\n");
    }
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return control.Connections() == 0; }, kDeadline));

    // Clients that connect and say nothing take a slot each; past the limit
    // the server answers busy at once.
    std::vector<std::unique_ptr<IdleConnection>> idle;
    for (int i = 0; i < 16; ++i) {
        idle.emplace_back(new IdleConnection(Path()));
    }
    ASSERT_TRUE(ReplayTest::WaitFor([&] { return control.Connections() == 16; }, kDeadline));
    const std::string busy = Ask(Path(), "status");
    EXPECT_EQ(busy.compare(0, 11, "error: busy"), 0) << busy;
    idle.clear();
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return control.Connections() == 0; }, kDeadline));
    EXPECT_EQ(Ask(Path(), "status"), "did status\n");
    control.Stop();
}

}  // namespace
