// What the fuzz targets share: a check that stops the run with a message
// (libFuzzer then saves the input), and a socket pair whose far end has
// written a given stream and closed, so a reader gets the bytes and then the
// end of the stream, never a wait.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#define FUZZ_CHECK(cond)                                                                  \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

namespace fuzz {

// The streams fed through a socket pair stay below the socket's buffer, so
// that the whole stream is written before the reader starts.
constexpr size_t kMaxStream = 60000;

class FedSocket {
public:
    // Writes `size` bytes into the far end and shuts its writing side.
    FedSocket(const uint8_t* data, size_t size) {
        FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) == 0);
        size_t done = 0;
        while (done < size) {
            const ssize_t n = write(fds_[1], data + done, size - done);
            if (n < 0 && errno == EINTR) continue;
            FUZZ_CHECK(n > 0);
            done += static_cast<size_t>(n);
        }
        FUZZ_CHECK(shutdown(fds_[1], SHUT_WR) == 0);
    }
    ~FedSocket() {
        close(fds_[0]);
        close(fds_[1]);
    }
    FedSocket(const FedSocket&) = delete;
    FedSocket& operator=(const FedSocket&) = delete;

    int reader() const { return fds_[0]; }

    // What the reader has not consumed yet.
    std::string rest() const {
        std::string out;
        const int flags = fcntl(fds_[0], F_GETFL);
        FUZZ_CHECK(flags >= 0 && fcntl(fds_[0], F_SETFL, flags | O_NONBLOCK) == 0);
        char buf[4096];
        for (;;) {
            const ssize_t n = read(fds_[0], buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            out.append(buf, static_cast<size_t>(n));
        }
        return out;
    }

    // What the library wrote towards the server.
    std::string sent() const {
        std::string out;
        char buf[4096];
        for (;;) {
            const ssize_t n = recv(fds_[1], buf, sizeof buf, MSG_DONTWAIT);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            out.append(buf, static_cast<size_t>(n));
        }
        return out;
    }

private:
    int fds_[2] = {-1, -1};
};

}  // namespace fuzz
