// Runs a piece of a test in a child process with a bound on its time, so a
// call that hangs (or would read or write for ever) fails the test instead of
// stopping the run. The child reports an int through a pipe; the parent kills
// it when the bound runs out. A scripted server of the parent keeps working,
// because its thread and sockets stay in the parent.
#pragma once

#include <cerrno>
#include <functional>
#include <optional>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace kemail_test {

struct ChildResult {
    bool finished = false;  // reported a result before the bound
    int value = 0;          // what the child reported
    int status = 0;         // its wait status
};

inline ChildResult run_bounded(int bound_ms, const std::function<int()>& body) {
    ChildResult result;
    int fds[2];
    if (pipe(fds) != 0) return result;
    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return result;
    }
    if (pid == 0) {
        close(fds[0]);
        const int value = body();
        const ssize_t n = write(fds[1], &value, sizeof value);
        _exit(n == static_cast<ssize_t>(sizeof value) ? 0 : 1);
    }
    close(fds[1]);
    pollfd p{fds[0], POLLIN, 0};
    int ready;
    do {
        ready = poll(&p, 1, bound_ms);
    } while (ready < 0 && errno == EINTR);
    int value = 0;
    if (ready == 1 && read(fds[0], &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
        result.finished = true;
        result.value = value;
    } else {
        kill(pid, SIGKILL);
    }
    close(fds[0]);
    while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
    }
    return result;
}

}  // namespace kemail_test
