// End-to-end cost of ZvKe_SendEMail against a local SMTP sink that discards
// what it receives: a 100 MiB attachment sent whole and in 64 KiB pieces, the
// peak memory of a send for attachments of 1 to 100 MiB, and 1000 small alert
// mails, each over a new connection with the trace and the mail log on.
//
// The library writes under /var/opt/QRZNvolta, so run the benchmark after
// `cmake --install` or in the tests' private root:
//     tests/support/private-root.sh build/bench/send_bench
// `send_bench --sink PORT` only runs the sink (for strace -c -f of one send
// made by another process, e.g. kemail-send).
#include "kemail.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// A do-nothing SMTP server on 127.0.0.1: one connection at a time, every
// command answered at once, message data discarded. It notes when the last
// connection was accepted, which splits a send's time into composing (before
// the connection) and the session (after).
class Sink {
public:
    explicit Sink(uint16_t port = 0) {
        listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int one = 1;
        setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(port);
        if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listen_fd_, 16) != 0) {
            std::perror("sink");
            std::exit(1);
        }
        socklen_t len = sizeof addr;
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        thread_ = std::thread([this] { run(); });
    }
    ~Sink() {
        stopping_ = true;
        shutdown(listen_fd_, SHUT_RDWR);
        thread_.join();
        close(listen_fd_);
    }
    uint16_t port() const { return port_; }
    Clock::time_point last_accept() const { return Clock::time_point(Clock::duration(accepted_.load())); }
    unsigned long messages() const { return messages_.load(); }

private:
    void run() {
        while (!stopping_) {
            const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (stopping_) return;
                continue;
            }
            accepted_ = Clock::now().time_since_epoch().count();
            serve(fd);
            close(fd);
        }
    }

    static bool say(int fd, const char* text) {
        const size_t length = std::strlen(text);
        return send(fd, text, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
    }

    // Looks for the end of message data in data[0, n): returns the bytes up to
    // and including the mark, or 0 when the mark is not complete yet.
    // `matched` carries how much of the mark ended the previous block.
    static size_t end_of_data(const char* data, size_t n, size_t& matched) {
        static const char kMark[] = "\r\n.\r\n";
        constexpr size_t kLength = sizeof kMark - 1;
        size_t i = 0;
        while (matched > 0 && i < n) {  // finish a mark begun in the previous block
            const char c = data[i++];
            matched = c == kMark[matched] ? matched + 1 : (c == '\r' ? 1 : 0);
            if (matched == kLength) {
                matched = 0;
                return i;
            }
        }
        if (const void* hit = memmem(data + i, n - i, kMark, kLength)) {
            return static_cast<size_t>(static_cast<const char*>(hit) - data) + kLength;
        }
        matched = 0;
        for (size_t k = std::min(kLength - 1, n - i); k > 0; --k) {
            if (std::memcmp(data + n - k, kMark, k) == 0) {
                matched = k;
                break;
            }
        }
        return 0;
    }

    void serve(int fd) {
        if (!say(fd, "220 sink ESMTP\r\n")) return;
        static thread_local char buffer[256 * 1024];
        std::string line;
        bool in_data = false;
        size_t matched = 0;
        for (;;) {
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) return;
            for (ssize_t i = 0; i < n; ++i) {
                if (in_data) {
                    // The end mark is looked for with memmem rather than byte by
                    // byte: the sink's own cost must not be what is measured.
                    const size_t used = end_of_data(buffer + i, static_cast<size_t>(n - i), matched);
                    if (used == 0) break;  // the whole rest is message data
                    i += static_cast<ssize_t>(used) - 1;
                    in_data = false;
                    ++messages_;
                    if (!say(fd, "250 OK\r\n")) return;
                    continue;
                }
                const char c = buffer[i];
                line.push_back(c);
                if (c != '\n') continue;
                if (line.rfind("EHLO", 0) == 0) {
                    if (!say(fd, "250-sink\r\n250 8BITMIME\r\n")) return;
                } else if (line.rfind("DATA", 0) == 0) {
                    in_data = true;
                    matched = 2;  // the command's CR LF starts the end mark
                    if (!say(fd, "354 go ahead\r\n")) return;
                } else if (line.rfind("QUIT", 0) == 0) {
                    say(fd, "221 bye\r\n");
                    return;
                } else if (!say(fd, "250 OK\r\n")) {
                    return;
                }
                line.clear();
            }
        }
    }

    int listen_fd_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<Clock::rep> accepted_{0};
    std::atomic<unsigned long> messages_{0};
};

Sink& sink() {
    static Sink instance;
    return instance;
}

// An attachment of the given size, made once and kept until the process ends.
const std::string& attachment(size_t mib) {
    static std::string paths[101];
    std::string& path = paths[mib];
    if (path.empty()) {
        path = "/tmp/kemail-bench-" + std::to_string(getpid()) + "-" + std::to_string(mib) + ".bin";
        FILE* f = std::fopen(path.c_str(), "wb");
        std::string block(1 << 20, '\0');
        for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + i / 7);
        for (size_t i = 0; i < mib; ++i) std::fwrite(block.data(), 1, block.size(), f);
        std::fclose(f);
        std::atexit([] {
            for (auto& p : paths)
                if (!p.empty()) std::remove(p.c_str());
        });
    }
    return path;
}

struct Request {
    std::string to = "rcpt@example.test";
    std::string text;
    std::string file;
    MailAddressInfo address{};
    MailContentInfo contents[2]{};
    SendOptionInfo option{64, 0};
    char message[KEMAIL_MESSAGE_SIZE] = {};

    int send(unsigned split, int part_kb, uint16_t port = sink().port()) {
        address = MailAddressInfo{1, 0, to.data()};
        contents[0] = MailContentInfo{KEMAIL_CONTENT_TEXT, 0, text.data()};
        contents[1] = MailContentInfo{KEMAIL_CONTENT_ATTACHMENT, 0, file.data()};
        option = SendOptionInfo{part_kb, port};
        return ZvKe_SendEMail(&address, 1, contents, file.empty() ? 1 : 2, "bench@example.test",
                              "bench", "127.0.0.1", split, &option, nullptr, nullptr, message);
    }
};

double process_cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool work_dir_ready(benchmark::State& state) {
    struct stat st {};
    if (stat("/var/opt/QRZNvolta/tmp", &st) == 0 && S_ISDIR(st.st_mode)) return true;
    state.SkipWithError("/var/opt/QRZNvolta/tmp is missing: install, or run under "
                        "tests/support/private-root.sh");
    return false;
}

// One 100 MiB attachment, whole (split 0) or in 64 KiB pieces (split 1).
void BM_HundredMiBAttachment(benchmark::State& state) {
    if (!work_dir_ready(state)) return;
    Request request;
    request.text = "See the attached archive.\n";
    request.file = attachment(100);
    const unsigned split = static_cast<unsigned>(state.range(0));
    double compose = 0, session = 0;
    const double cpu_start = process_cpu_seconds();
    for (auto _ : state) {
        const unsigned long before = sink().messages();
        const auto start = Clock::now();
        const int result = request.send(split, 64);
        const auto end = Clock::now();
        if (result == KEMAIL_OK && sink().messages() == before) {
            state.SkipWithError("the send reported success but no message reached the sink");
            return;
        }
        if (result != KEMAIL_OK) {
            state.SkipWithError(("send failed: " + std::to_string(result) + " " +
                                 request.message).c_str());
            return;
        }
        const auto accepted = sink().last_accept();
        compose += std::chrono::duration<double>(accepted - start).count();
        session += std::chrono::duration<double>(end - accepted).count();
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["compose_s"] = compose / n;
    state.counters["session_s"] = session / n;
    state.counters["process_cpu_s"] = (process_cpu_seconds() - cpu_start) / n;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (100 << 20));
}
BENCHMARK(BM_HundredMiBAttachment)->Arg(0)->Arg(1)->ArgName("split")->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Peak resident memory of a fresh process (this program, started again with
// --one-send) that makes one send of an attachment of range(0) MiB.
void BM_PeakMemory(benchmark::State& state) {
    if (!work_dir_ready(state)) return;
    const size_t mib = static_cast<size_t>(state.range(0));
    const std::string split = std::to_string(state.range(1));
    const std::string port = std::to_string(sink().port());
    const std::string& file = attachment(mib);
    long peak_kib = 0;
    for (auto _ : state) {
        const pid_t child = fork();
        if (child == 0) {
            execl("/proc/self/exe", "send_bench", "--one-send", file.c_str(), split.c_str(),
                  port.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        rusage usage{};
        wait4(child, &status, 0, &usage);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("the child's send failed");
            return;
        }
        peak_kib = usage.ru_maxrss;
    }
    state.counters["peak_rss_MiB"] = static_cast<double>(peak_kib) / 1024.0;
}
BENCHMARK(BM_PeakMemory)
    ->ArgsProduct({{0, 1, 10, 100}, {0, 1}})
    ->ArgNames({"MiB", "split"})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->UseRealTime();

// 1000 alert mails of 1 KiB text, each its own connection, in one process.
void BM_ThousandAlerts(benchmark::State& state) {
    if (!work_dir_ready(state)) return;
    Request request;
    for (int line = 0; request.text.size() < 1024; ++line)
        request.text += "alert " + std::to_string(line) + ": disk /var above threshold\n";
    request.text.resize(1024);
    const double cpu_start = process_cpu_seconds();
    const unsigned long before = sink().messages();
    for (auto _ : state) {
        for (int i = 0; i < 1000; ++i) {
            const int result = request.send(0, 64);
            if (result != KEMAIL_OK) {
                state.SkipWithError(("send failed: " + std::to_string(result)).c_str());
                return;
            }
        }
    }
    if (sink().messages() - before != 1000 * static_cast<unsigned long>(state.iterations())) {
        state.SkipWithError("fewer messages reached the sink than were sent");
        return;
    }
    state.counters["process_cpu_s"] =
        (process_cpu_seconds() - cpu_start) / static_cast<double>(state.iterations());
    state.counters["mails_per_s"] = benchmark::Counter(
        1000.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ThousandAlerts)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--sink") == 0) {
        Sink standalone(static_cast<uint16_t>(std::atoi(argv[2])));
        std::printf("sink listening on 127.0.0.1:%u\n", standalone.port());
        std::fflush(stdout);
        pause();
        return 0;
    }
    if (argc == 5 && std::strcmp(argv[1], "--one-send") == 0) {
        // A file of 0 MiB stands for no attachment: the baseline of a send.
        Request request;
        request.text = "peak memory\n";
        struct stat st {};
        if (stat(argv[2], &st) == 0 && st.st_size > 0) request.file = argv[2];
        const int result = request.send(static_cast<unsigned>(std::atoi(argv[3])), 64,
                                        static_cast<uint16_t>(std::atoi(argv[4])));
        return result == KEMAIL_OK ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
