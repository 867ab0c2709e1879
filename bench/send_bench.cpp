// End-to-end cost of ZvKe_SendEMail against a local SMTP sink that discards
// what it receives, each case beside its floor (floor_cases.cpp):
//
//   BM_Kemail_HundredMiBWhole  a 100 MiB attachment in one mail
//   BM_Kemail_HundredMiBSplit  the same in 64 KiB pieces (/pipelining with
//                              PIPELINING=1)
//   BM_Kemail_OneSmall         one 1 KiB alert mail
//   BM_Kemail_ThousandSmall    1000 of them, a new connection each
//   BM_PeakMemory              the peak memory of a process making one send
//                              of 0 to 100 MiB, whole and split
//
// The trace (level 1, the default) and the mail log are on. The /starttls
// cases send over STARTTLS to a sink with a test certificate made at start;
// a case whose options the library does not accept yet is skipped with the
// reason, never given a figure.
//
// The library writes under /var/opt/QRZNvolta, so run the benchmark after
// `cmake --install` or in the tests' private root:
//     tests/support/private-root.sh build/bench/send_bench
// `send_bench --sink PORT` only runs the sink (for strace -c -f of one send
// made by another process, e.g. kemail-send).
#include "kemail.h"
#include "bench_files.h"
#include "floor_client.h"
#include "measure.h"
#include "sink.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
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

enum class Mode { Plain, Pipelining, StartTls };

struct Request {
    std::string to = bench::kTo;
    std::string text;
    std::string file;
    MailAddressInfo address{};
    MailContentInfo contents[2]{};
    SendOptionInfo option{64, 0};
    char message[KEMAIL_MESSAGE_SIZE] = {};

    int send(unsigned split, int part_kb, uint16_t port) {
        address = MailAddressInfo{1, 0, to.data()};
        contents[0] = MailContentInfo{KEMAIL_CONTENT_TEXT, 0, text.data()};
        contents[1] = MailContentInfo{KEMAIL_CONTENT_ATTACHMENT, 0, file.data()};
        option = SendOptionInfo{part_kb, port};
        return ZvKe_SendEMail(&address, 1, contents, file.empty() ? 1 : 2, bench::kFrom, "bench",
                              "127.0.0.1", split, &option, nullptr, nullptr, message);
    }
};

bool work_dir_ready(benchmark::State& state) {
    struct stat st {};
    if (stat("/var/opt/QRZNvolta/tmp", &st) == 0 && S_ISDIR(st.st_mode)) return true;
    state.SkipWithError(
        "/var/opt/QRZNvolta/tmp is missing: install, or run under "
        "tests/support/private-root.sh");
    return false;
}

// The options a mode needs, set through ZvKe_SetOption for the life of one
// case and removed after it. A library that does not accept one of them
// (ZvKe_SetOption returns -1 until the behaviour is in) has the case
// skipped with the key named: no figure is made up for it.
class ModeScope {
public:
    ModeScope(benchmark::State& state, Mode mode) {
        if (!work_dir_ready(state)) return;
        if (mode == Mode::Plain) {
            sink_ = &bench::sink();
        } else if (mode == Mode::Pipelining) {
            if (!set(state, "PIPELINING", "1")) return;
            sink_ = &bench::sink();
        } else {
            bench::TlsBench& tls = bench::tls();
            if (!tls.ok()) {
                state.SkipWithError("the TLS sink could not be set up (openssl command, test PKI)");
                return;
            }
            if (!set(state, "TLS", "starttls") || !set(state, "TLS_CA_FILE", tls.ca_file()) ||
                !set(state, "TLS_SERVER_NAME", tls.kServerName)) {
                return;
            }
            sink_ = &tls.sink();
        }
    }
    ~ModeScope() {
        for (const char* key : set_) {
            if (key) ZvKe_SetOption(key, nullptr);
        }
    }
    ModeScope(const ModeScope&) = delete;
    ModeScope& operator=(const ModeScope&) = delete;

    // The sink to send to, or null when the case is skipped.
    Sink* sink() const { return sink_; }

private:
    bool set(benchmark::State& state, const char* key, const std::string& value) {
        if (ZvKe_SetOption(key, value.c_str()) != 0) {
            state.SkipWithError(("skipped: this library does not accept " + std::string(key) + "=" +
                                 value + " (ZvKe_SetOption returned -1)")
                                    .c_str());
            return false;
        }
        for (const char*& slot : set_) {
            if (!slot) {
                slot = key;
                break;
            }
        }
        return true;
    }

    Sink* sink_ = nullptr;
    const char* set_[3] = {};
};

// One send of request with the mode's sink; false (and the case skipped)
// when it fails, reports a success that never reached the sink, or did not
// use the STARTTLS or the pipelining the mode is about.
bool send_checked(benchmark::State& state, Request& request, Sink& sink, unsigned split,
                  Mode mode) {
    const unsigned long before = sink.messages();
    const unsigned long handshakes = sink.handshakes();
    const unsigned long groups = sink.command_groups();
    const int result = request.send(split, static_cast<int>(bench::kPieceKib), sink.port());
    if (result != KEMAIL_OK) {
        state.SkipWithError(
            ("send failed: " + std::to_string(result) + " " + request.message).c_str());
        return false;
    }
    if (sink.messages() == before) {
        state.SkipWithError("the send reported success but no message reached the sink");
        return false;
    }
    if (mode == Mode::StartTls && sink.handshakes() == handshakes) {
        state.SkipWithError("TLS=starttls was accepted but the send made no TLS handshake");
        return false;
    }
    if (mode == Mode::Pipelining && sink.command_groups() == groups) {
        state.SkipWithError("PIPELINING=1 was accepted but no command group reached the sink");
        return false;
    }
    return true;
}

// One 100 MiB attachment, whole (split 0) or in 64 KiB pieces (split 1).
void hundred_mib(benchmark::State& state, Mode mode, unsigned split) {
    const ModeScope scope(state, mode);
    if (!scope.sink()) return;
    Sink& sink = *scope.sink();
    Request request;
    request.text = "See the attached archive.\n";
    request.file = bench::attachment(100);
    double compose = 0, session = 0;
    const unsigned long messages_before = sink.messages();
    const bench::CpuMeter cpu;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (!send_checked(state, request, sink, split, mode)) return;
        const auto end = Clock::now();
        const auto accepted = sink.last_accept();
        compose += std::chrono::duration<double>(accepted - start).count();
        session += std::chrono::duration<double>(end - accepted).count();
    }
    cpu.report(state);
    const double n = static_cast<double>(state.iterations());
    state.counters["compose_s"] = compose / n;
    state.counters["session_s"] = session / n;
    if (split)
        state.counters["pieces"] = static_cast<double>(sink.messages() - messages_before) / n;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (100 << 20));
}

void BM_Kemail_HundredMiBWhole(benchmark::State& state, Mode mode) { hundred_mib(state, mode, 0); }
BENCHMARK_CAPTURE(BM_Kemail_HundredMiBWhole, plain, Mode::Plain)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Kemail_HundredMiBWhole, starttls, Mode::StartTls)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_Kemail_HundredMiBSplit(benchmark::State& state, Mode mode) { hundred_mib(state, mode, 1); }
BENCHMARK_CAPTURE(BM_Kemail_HundredMiBSplit, plain, Mode::Plain)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Kemail_HundredMiBSplit, pipelining, Mode::Pipelining)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Kemail_HundredMiBSplit, starttls, Mode::StartTls)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Alert mails of 1 KiB text, each its own connection, with the trace (level
// 1, the default without trc_conf) and the mail log on.
void small_mails(benchmark::State& state, Mode mode, int count) {
    const ModeScope scope(state, mode);
    if (!scope.sink()) return;
    Request request;
    request.text = bench::alert_text();
    const bench::CpuMeter cpu;
    for (auto _ : state) {
        for (int i = 0; i < count; ++i) {
            if (!send_checked(state, request, *scope.sink(), 0, mode)) return;
        }
    }
    cpu.report(state);
    state.counters["mails_per_s"] = benchmark::Counter(
        count * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_Kemail_OneSmall(benchmark::State& state, Mode mode) { small_mails(state, mode, 1); }
BENCHMARK_CAPTURE(BM_Kemail_OneSmall, plain, Mode::Plain)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Kemail_OneSmall, starttls, Mode::StartTls)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

void BM_Kemail_ThousandSmall(benchmark::State& state, Mode mode) { small_mails(state, mode, 1000); }
BENCHMARK_CAPTURE(BM_Kemail_ThousandSmall, plain, Mode::Plain)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_Kemail_ThousandSmall, starttls, Mode::StartTls)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);

// The peak resident memory of a process, VmHWM in /proc/self/status, in KiB;
// -1 when it cannot be read.
long vm_hwm_kib() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return -1;
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, status)) {
        if (std::strncmp(line, "VmHWM:", 6) == 0) {
            kib = std::strtol(line + 6, nullptr, 10);
            break;
        }
    }
    std::fclose(status);
    return kib;
}

// Peak resident memory of a fresh process (this program, started again with
// --one-send) that makes one send of an attachment of range(0) MiB. The
// child reads its own VmHWM before and after the send: ru_maxrss of a child
// would not do, as exec carries the high-water mark of the forking process
// (this one, which holds the floor's 140 MB message) into the new image.
void BM_PeakMemory(benchmark::State& state) {
    if (!work_dir_ready(state)) return;
    const size_t mib = static_cast<size_t>(state.range(0));
    const std::string split = std::to_string(state.range(1));
    const std::string port = std::to_string(bench::sink().port());
    const std::string& file = bench::attachment(mib);
    long before_kib = -1, peak_kib = -1;
    for (auto _ : state) {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) {
            state.SkipWithError("pipe2 failed");
            return;
        }
        const pid_t child = fork();
        if (child == 0) {
            if (dup2(out[1], STDOUT_FILENO) < 0) _exit(126);
            execl("/proc/self/exe", "send_bench", "--one-send", file.c_str(), split.c_str(),
                  port.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        char report[64] = {};
        size_t used = 0;
        ssize_t n = 0;
        while (used < sizeof report - 1 &&
               (n = read(out[0], report + used, sizeof report - 1 - used)) > 0) {
            used += static_cast<size_t>(n);
        }
        close(out[0]);
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 0 ||
            std::sscanf(report, "%ld %ld", &before_kib, &peak_kib) != 2) {
            state.SkipWithError("the child's send failed");
            return;
        }
    }
    state.counters["peak_MiB"] = static_cast<double>(peak_kib) / 1024.0;
    state.counters["send_MiB"] = static_cast<double>(peak_kib - before_kib) / 1024.0;
}
BENCHMARK(BM_PeakMemory)
    ->ArgsProduct({{0, 1, 10, 30, 100}, {0, 1}})
    ->ArgNames({"MiB", "split"})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->UseRealTime();

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
        const long before_kib = vm_hwm_kib();
        const int result =
            request.send(static_cast<unsigned>(std::strtol(argv[3], nullptr, 10)), 64,
                         static_cast<uint16_t>(std::strtol(argv[4], nullptr, 10)));
        std::printf("%ld %ld\n", before_kib, vm_hwm_kib());
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
            floor_session session;
            if (floor_open(&session, port, nullptr, nullptr) != 0) return 1;
            const int sent = floor_transaction(&session, bench::kFrom, bench::kTo, message.data(),
                                               message.size(), 0);
            floor_close(&session);
            if (sent != 0) return 1;
        }
        access("/kemail-bench-mark/end", F_OK);
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
