// Helpers shared by the utility tests: profiles built from text, paths of
// an exact length for the path-bound tests, child processes with limits,
// and a signal and a file lease that interrupt and block system calls.
#pragma once

#include <atomic>
#include <csignal>
#include <string>
#include <thread>

#include <grp.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kemail.h"
#include "support/temp_dir.h"

namespace util_test {

// Writes text to a file in dir and opens it as a profile with flags.
inline ProfileHandle* open_profile_text(const kemail_test::TempDir& dir, const std::string& text,
                                        unsigned int flags = 0, const char* name = "p.ini") {
    const std::string path = dir.file(name);
    kemail_test::write_file(path, text);
    return Com_OpenPrivateProfile(path.c_str(), flags);
}

// The value of section/key, read through a buffer wide enough for any line.
inline std::string profile_value(ProfileHandle* handle, const char* section, const char* key,
                                 const char* fallback = "<default>") {
    char out[2048];
    const int length = Com_GetPrivateProfileString(handle, section, key, fallback, out, sizeof out);
    if (length < 0) return "<error>";
    return std::string(out, static_cast<size_t>(length));
}

// A path under base of exactly length bytes, made of components short enough
// for the file system ("base/dddd.../dddd..."), none of which exist.
inline std::string path_of_length(const std::string& base, size_t length) {
    std::string path = base;
    while (path.size() < length) {
        const size_t room = length - path.size();
        if (room == 1) {  // a path can't end in "/": lengthen the last component
            path += "e";
            break;
        }
        path += '/';
        path.append(room - 1 > 100 ? 100 : room - 1, 'd');
    }
    return path;
}

// True when anything, even a dangling link, stands at path.
inline bool exists(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

// Exit code of a child that failed to set itself up.
constexpr int kChildSetUpFailed = 99;

// Runs body in a forked child and returns the exit code it gives; -1000
// when the child did not exit normally.
template <typename Body>
int exit_code_of(Body body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1000;
    return WEXITSTATUS(status);
}

// As exit_code_of, with files limited to bytes: a write past the limit
// falls short or fails with EFBIG (SIGXFSZ is ignored).
template <typename Body>
int exit_code_with_file_size_limit(rlim_t bytes, Body body) {
    return exit_code_of([&] {
        signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {bytes, bytes};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return kChildSetUpFailed;
        return body();
    });
}

// User and group "nobody".
constexpr uid_t kNobody = 65534;

// As exit_code_of, run as user and group nobody (the caller must be root).
template <typename Body>
int exit_code_as_nobody(Body body) {
    return exit_code_of([&] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            return kChildSetUpFailed;
        }
        return body();
    });
}

// While it lives, SIGUSR1 is counted and interrupts a blocked system call
// (its handler does not ask for a restart, so the call fails with EINTR or
// returns what it has done so far).
class InterruptingSignal {
public:
    InterruptingSignal() {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++caught_; };
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        sigaction(SIGUSR1, &action, &old_);
        caught_ = 0;
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &old_, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

    int caught() const { return caught_.load(); }

    // A thread that sends count signals to target 50 ms apart (the first
    // after 50 ms, when the target has blocked), then waits 50 ms and runs
    // finish.
    template <typename Finish>
    static std::thread interrupt_then(pthread_t target, int count, Finish finish) {
        return std::thread([target, count, finish] {
            for (int i = 0; i < count; ++i) {
                usleep(50 * 1000);
                pthread_kill(target, SIGUSR1);
            }
            usleep(50 * 1000);
            finish();
        });
    }

private:
    static inline std::atomic<int> caught_{0};
    struct sigaction old_ = {};
};

// A read lease held by this process: an open for writing blocks until the
// lease is given up, so a signal can interrupt that open again and again.
class ReadLease {
public:
    explicit ReadLease(const std::string& path) {
        old_sigio_ = std::signal(SIGIO, SIG_IGN);  // the holder is told of the break by SIGIO
        fd_ = open(path.c_str(), O_RDONLY);
        held_ = fd_ >= 0 && fcntl(fd_, F_SETLEASE, F_RDLCK) == 0;
    }
    ~ReadLease() {
        release();
        if (fd_ >= 0) close(fd_);
        std::signal(SIGIO, old_sigio_);
    }
    ReadLease(const ReadLease&) = delete;
    ReadLease& operator=(const ReadLease&) = delete;

    bool held() const { return held_; }
    void release() {
        if (held_) fcntl(fd_, F_SETLEASE, F_UNLCK);
        held_ = false;
    }

private:
    int fd_ = -1;
    bool held_ = false;
    sighandler_t old_sigio_ = SIG_DFL;
};

}  // namespace util_test
