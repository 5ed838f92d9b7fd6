#include "reference/src/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "reference/src/file_io.h"

extern char** environ;

namespace ReplayPlatform {

namespace {

pid_t Spawn(const std::vector<std::string>& arguments, int outputFd) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    // Own process group, so that a timeout stops everything the program
    // started; no blocked signals inherited from the caller's threads.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t noSignals;
    sigemptyset(&noSignals);
    posix_spawnattr_setsigmask(&attributes, &noSignals);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);

    std::vector<std::string> copies(arguments);
    std::vector<char*> argv;
    for (std::string& argument : copies) {
        argv.push_back(&argument[0]);
    }
    argv.push_back(nullptr);
    pid_t child = -1;
    const int spawned = posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return spawned == 0 ? child : -1;
}

int Reap(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

}  // namespace

int CurrentProcessId() {
    return static_cast<int>(getpid());
}

int RunProgram(const std::vector<std::string>& arguments, std::chrono::milliseconds timeout,
               std::string& output) {
    if (arguments.empty() || arguments[0].empty()) {
        return -1;
    }
    int ends[2];
    if (!OpenPipe(ends, PipeMode::kStream)) {
        return -1;
    }
    const pid_t child = Spawn(arguments, ends[1]);
    CloseDescriptor(ends[1]);
    if (child < 0) {
        CloseDescriptor(ends[0]);
        return -1;
    }

    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool timedOut = false;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd readable = {ends[0], POLLIN, 0};
        const int ready = poll(&readable, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            timedOut = ready == 0;
            break;
        }
        char chunk[4096];
        const ssize_t got = ReadSome(ends[0], chunk, sizeof chunk);
        if (got <= 0) {
            break;  // end of output: the program closed it or ended
        }
        output.append(chunk, static_cast<size_t>(got));
    }
    CloseDescriptor(ends[0]);
    if (timedOut) {
        kill(-child, SIGKILL);
        Reap(child);
        return -1;
    }
    // The output ended; a program that still runs after closing it is
    // bounded by the same deadline.
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) {
            return status;
        }
        if (done < 0 && errno != EINTR) {
            return -1;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(-child, SIGKILL);
            Reap(child);
            return -1;
        }
        usleep(5 * 1000);
    }
}

}  // namespace ReplayPlatform
