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
#include "bench_files.h"
#include "floor_client.h"
#include "sink.h"

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

using bench::Clock;
using bench::Sink;
using bench::sink;

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
    state.SkipWithError(
        "/var/opt/QRZNvolta/tmp is missing: install, or run under "
        "tests/support/private-root.sh");
    return false;
}

// One 100 MiB attachment, whole (split 0) or in 64 KiB pieces (split 1).
void BM_HundredMiBAttachment(benchmark::State& state) {
    if (!work_dir_ready(state)) return;
    Request request;
    request.text = "See the attached archive.\n";
    request.file = bench::attachment(100);
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
            state.SkipWithError(
                ("send failed: " + std::to_string(result) + " " + request.message).c_str());
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
BENCHMARK(BM_HundredMiBAttachment)
    ->Arg(0)
    ->Arg(1)
    ->ArgName("split")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Peak resident memory of a fresh process (this program, started again with
// --one-send) that makes one send of an attachment of range(0) MiB.
void BM_PeakMemory(benchmark::State& state) {
    if (!work_dir_ready(state)) return;
    const size_t mib = static_cast<size_t>(state.range(0));
    const std::string split = std::to_string(state.range(1));
    const std::string port = std::to_string(sink().port());
    const std::string& file = bench::attachment(mib);
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
    request.text = bench::alert_text();
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
        Sink standalone(static_cast<uint16_t>(std::strtol(argv[2], nullptr, 10)));
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
        const int result =
            request.send(static_cast<unsigned>(std::strtol(argv[3], nullptr, 10)), 64,
                         static_cast<uint16_t>(std::strtol(argv[4], nullptr, 10)));
        return result == KEMAIL_OK ? 0 : 1;
    }
    if (argc == 4 && std::strcmp(argv[1], "--small-sends") == 0) {
        // One warm-up send, then N sends between two marker calls that
        // bench/count-syscalls.sh looks for in an strace of this process.
        const long count = std::strtol(argv[2], nullptr, 10);
        const auto port = static_cast<uint16_t>(std::strtol(argv[3], nullptr, 10));
        Request request;
        request.text = bench::alert_text();
        if (request.send(0, 64, port) != KEMAIL_OK) return 1;
        access("/kemail-bench-mark/begin", F_OK);
        for (long i = 0; i < count; ++i) {
            if (request.send(0, 64, port) != KEMAIL_OK) return 1;
        }
        access("/kemail-bench-mark/end", F_OK);
        return 0;
    }
    if (argc == 4 && std::strcmp(argv[1], "--floor-small-sends") == 0) {
        const long count = std::strtol(argv[2], nullptr, 10);
        const auto port = static_cast<uint16_t>(std::strtol(argv[3], nullptr, 10));
        const std::string message = bench::small_message();
        access("/kemail-bench-mark/begin", F_OK);
        for (long i = 0; i < count; ++i) {
            const int sock = floor_open(port);
            const int sent = floor_transaction(sock, "bench@example.test", "rcpt@example.test",
                                               message.data(), message.size(), 0);
            floor_close(sock);
            if (sock < 0 || sent != 0) return 1;
        }
        access("/kemail-bench-mark/end", F_OK);
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
