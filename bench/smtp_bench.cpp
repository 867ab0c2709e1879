// Costs of the SMTP session: system calls per complete small dialogue and
// per reply line (counted by wrappers around the socket and file calls the
// session makes, on the calling thread only), and the time to send a staged
// file of 100 MiB with SMTP_sendData next to a raw read-and-send loop.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kemail.h"

namespace {

// ---- system call counting -------------------------------------------------

thread_local bool t_counting = false;
std::atomic<long> g_calls{0};

void count_call() {
    if (t_counting) g_calls.fetch_add(1, std::memory_order_relaxed);
}

template <typename Fn>
Fn next_definition(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

struct Counting {
    Counting() {
        g_calls = 0;
        t_counting = true;
    }
    ~Counting() { t_counting = false; }
    long calls() const { return g_calls.load(); }
};

// ---- a local SMTP sink ----------------------------------------------------

int listen_loopback(uint16_t* port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 8) != 0) {
        std::perror("sink");
        std::abort();
    }
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
}

void send_all(int fd, const char* text) {
    size_t sent = 0;
    const size_t length = std::strlen(text);
    while (sent < length) {
        const ssize_t n = ::send(fd, text + sent, length - sent, MSG_NOSIGNAL);
        if (n <= 0) return;
        sent += static_cast<size_t>(n);
    }
}

// Answers every command line of a session; in DATA mode it discards the
// message up to the end mark. Reads in large blocks (it is not under test).
void serve_smtp(int fd) {
    send_all(fd, "220 sink ESMTP\r\n");
    std::string pending;
    bool in_data = false;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        pending.append(buf, static_cast<size_t>(n));
        for (;;) {
            if (in_data) {
                const size_t end = pending.find("\r\n.\r\n");
                if (end == std::string::npos) {
                    if (pending.size() > 8) pending.erase(0, pending.size() - 8);
                    break;
                }
                pending.erase(0, end + 5);
                in_data = false;
                send_all(fd, "250 OK\r\n");
                continue;
            }
            const size_t end = pending.find("\r\n");
            if (end == std::string::npos) break;
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 2);
            if (line.rfind("EHLO", 0) == 0) {
                send_all(fd, "250-sink\r\n250-PIPELINING\r\n250 8BITMIME\r\n");
            } else if (line == "DATA") {
                in_data = true;
                send_all(fd, "354 go ahead\r\n");
            } else if (line == "QUIT") {
                send_all(fd, "221 bye\r\n");
                ::close(fd);
                return;
            } else {
                send_all(fd, "250 OK\r\n");
            }
        }
    }
    ::close(fd);
}

// Wakes a thread blocked in accept on the port: a connection that is
// closed at once.
void knock(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::close(fd);
}

struct Sink {
    Sink() {
        listener = listen_loopback(&port);
        thread = std::thread([this] {
            for (;;) {
                const int fd = accept(listener, nullptr, nullptr);
                if (fd < 0 || stopping) {
                    if (fd >= 0) ::close(fd);
                    return;
                }
                serve_smtp(fd);
            }
        });
    }
    ~Sink() {
        stopping = true;
        knock(port);
        thread.join();
        ::close(listener);
    }
    int listener = -1;
    uint16_t port = 0;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

// Discards everything a connection sends (a data sink without protocol).
struct Drain {
    Drain() {
        listener = listen_loopback(&port);
        thread = std::thread([this] {
            const int fd = accept(listener, nullptr, nullptr);
            if (fd < 0) return;
            std::vector<char> buf(1 << 20);
            while (::recv(fd, buf.data(), buf.size(), 0) > 0) {
            }
            ::close(fd);
        });
    }
    ~Drain() {
        thread.join();
        ::close(listener);
    }
    int listener = -1;
    uint16_t port = 0;
    std::thread thread;
};

std::string make_staged_file(size_t size) {
    char name[] = "/tmp/kemail-bench.XXXXXX";
    const int fd = mkstemp(name);
    std::vector<char> line(1000, 'm');
    line[998] = '\r';
    line[999] = '\n';
    size_t written = 0;
    while (written < size) {
        const size_t n = std::min(line.size(), size - written);
        if (::write(fd, line.data(), n) != static_cast<ssize_t>(n)) std::abort();
        written += n;
    }
    ::close(fd);
    return name;
}

void set_timeouts() {
    const SmtpTimeOut values = {60, 60, 60, 60, 60, 60};
    SMTP_SetTimeOutInfo(&values);
}

// ---- benchmarks -----------------------------------------------------------

// Greeting to QUIT: EHLO (3-line reply), MAIL, one RCPT, DATA, a 1 KiB
// message, end of data, QUIT.
void BM_SmallDialogue(benchmark::State& state) {
    set_timeouts();
    Sink sink;
    const std::string path = make_staged_file(1024);
    const int file = ::open(path.c_str(), O_RDONLY);
    long calls = 0;
    for (auto _ : state) {
        Counting counting;
        unsigned int err = 0;
        const int sock = SMTP_connect("127.0.0.1", sink.port, &err);
        if (sock < 0 || SMTP_initialize(sock, nullptr, &err) != 0 ||
            SMTP_MAIL(sock, "bench@example.com", "sink@example.com", &err) != 0 ||
            SMTP_startData(sock, &err) != 0 || SMTP_sendData(sock, file, &err) != 0 ||
            SMTP_endData(sock, &err) != 0 || SMTP_QUIT(sock, &err) != 0) {
            state.SkipWithError("dialogue failed");
            break;
        }
        ::close(sock);
        calls = counting.calls();
        if (calls == 0) {
            // A dialogue without a system call did not run the session code.
            state.SkipWithError(
                "the dialogue made no system call: the counting wrappers were not reached");
            break;
        }
    }
    ::close(file);
    ::unlink(path.c_str());
    state.counters["syscalls_per_dialogue"] = static_cast<double>(calls);
}
BENCHMARK(BM_SmallDialogue)->Unit(benchmark::kMicrosecond);

// One reply of state.range(0) lines of about 40 bytes each, read whole.
void BM_ReplyLines(benchmark::State& state) {
    set_timeouts();
    const int lines = static_cast<int>(state.range(0));
    std::string reply;
    for (int i = 0; i < lines - 1; ++i)
        reply += "250-capability number " + std::to_string(100000 + i) + " here\r\n";
    reply += "250 last line of the reply here ok\r\n";
    char buf[KEMAIL_RECV_BUF_SIZE];
    long calls = 0;
    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    for (auto _ : state) {
        send_all(fds[1], reply.c_str());  // fits the socket buffer
        {
            Counting counting;
            unsigned int err = 0;
            SMTP_SetTimeOut(60);
            SMTP_SetStartTime();
            if (SMTP_returnMessage(fds[0], buf, sizeof buf, &err) != 0)
                state.SkipWithError("read failed");
            calls = counting.calls();
        }
    }
    ::close(fds[0]);
    ::close(fds[1]);
    // The reply is written by the same thread: its send is not counted.
    state.counters["syscalls_per_line"] = static_cast<double>(calls) / lines;
    state.counters["bytes_per_line"] = static_cast<double>(reply.size()) / lines;
}
BENCHMARK(BM_ReplyLines)->Arg(1)->Arg(10)->Arg(200);

constexpr size_t k100MiB = 100u << 20;

// SMTP_sendData of a staged 100 MiB file to a local TCP sink. The argument
// 0 turns Nagle's algorithm back on for the transfer (the session runs with
// TCP_NODELAY), to show what the immediate push of each chunk costs.
void BM_SendData100MiB(benchmark::State& state) {
    set_timeouts();
    const std::string path = make_staged_file(k100MiB);
    const int file = ::open(path.c_str(), O_RDONLY);
    long calls = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Drain drain;
        unsigned int err = 0;
        const int sock = SMTP_connect("127.0.0.1", drain.port, &err);
        const int no_delay = static_cast<int>(state.range(0));
        setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof no_delay);
        state.ResumeTiming();
        Counting counting;
        if (SMTP_sendData(sock, file, &err) != 0) state.SkipWithError("send failed");
        calls = counting.calls();
        state.PauseTiming();
        ::close(sock);
        state.ResumeTiming();
    }
    ::close(file);
    ::unlink(path.c_str());
    state.counters["syscalls"] = static_cast<double>(calls);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * k100MiB));
}
BENCHMARK(BM_SendData100MiB)
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);

// The same file with a plain read-and-send loop, for comparison; the chunk
// size is the argument.
void BM_RawReadSend100MiB(benchmark::State& state) {
    const std::string path = make_staged_file(k100MiB);
    const int file = ::open(path.c_str(), O_RDONLY);
    std::vector<char> buf(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        Drain drain;
        unsigned int err = 0;
        set_timeouts();
        const int sock = SMTP_connect("127.0.0.1", drain.port, &err);
        ::lseek(file, 0, SEEK_SET);
        state.ResumeTiming();
        for (;;) {
            const ssize_t n = ::read(file, buf.data(), buf.size());
            if (n <= 0) break;
            ssize_t sent = 0;
            while (sent < n) {
                const ssize_t m = ::send(sock, buf.data() + sent, static_cast<size_t>(n - sent), 0);
                if (m <= 0) break;
                sent += m;
            }
        }
        state.PauseTiming();
        ::close(sock);
        state.ResumeTiming();
    }
    ::close(file);
    ::unlink(path.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * k100MiB));
}
BENCHMARK(BM_RawReadSend100MiB)
    ->Arg(1028)
    ->Arg(65536)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);

}  // namespace

// Counting wrappers: the library (linked statically here) calls these, and
// each forwards to the C library's definition.
extern "C" {

int select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
    count_call();
    static const auto next =
        next_definition<int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*)>("select");
    return next(nfds, r, w, e, t);
}
ssize_t recv(int fd, void* buf, size_t n, int flags) {
    count_call();
    static const auto next = next_definition<ssize_t (*)(int, void*, size_t, int)>("recv");
    return next(fd, buf, n, flags);
}
ssize_t send(int fd, const void* buf, size_t n, int flags) {
    count_call();
    static const auto next = next_definition<ssize_t (*)(int, const void*, size_t, int)>("send");
    return next(fd, buf, n, flags);
}
ssize_t read(int fd, void* buf, size_t n) {
    count_call();
    static const auto next = next_definition<ssize_t (*)(int, void*, size_t)>("read");
    return next(fd, buf, n);
}
off_t lseek(int fd, off_t offset, int whence) {
    count_call();
    static const auto next = next_definition<off_t (*)(int, off_t, int)>("lseek");
    return next(fd, offset, whence);
}
int socket(int domain, int type, int protocol) {
    count_call();
    static const auto next = next_definition<int (*)(int, int, int)>("socket");
    return next(domain, type, protocol);
}
int connect(int fd, const struct sockaddr* address, socklen_t length) {
    count_call();
    static const auto next =
        next_definition<int (*)(int, const struct sockaddr*, socklen_t)>("connect");
    return next(fd, address, length);
}
int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    count_call();
    static const auto next =
        next_definition<int (*)(int, int, int, const void*, socklen_t)>("setsockopt");
    return next(fd, level, name, value, length);
}
int gethostname(char* name, size_t length) {
    count_call();
    static const auto next = next_definition<int (*)(char*, size_t)>("gethostname");
    return next(name, length);
}

}  // extern "C"

BENCHMARK_MAIN();
