// The floor beside each send_bench case: the same exchange done by the
// minimal C client of floor_client.c against the same sink, in the same
// process, so that the two figures of one run can be compared directly.
//
//   BM_Floor_HundredMiBWhole  coreutils `base64 -w 76` of the 100 MiB file
//                             run as a child process writing to /tmp (the
//                             encoding), then the finished message, made
//                             once beforehand, sent in one transaction
//   BM_Floor_HundredMiBSplit  the finished message cut into 64 KiB pieces,
//                             one transaction and RSET each (five round
//                             trips), over one connection
//   BM_Floor_OneSmall         one 1 KiB alert over a new connection
//   BM_Floor_ThousandSmall    1000 such alerts, a new connection each
//
// Each in clear (/plain) and over STARTTLS (/starttls, the client verifying
// the sink's test certificate); the split case also with the commands
// pipelined (/pipelining: MAIL FROM, RCPT TO and DATA in one write, the end
// mark and RSET of a piece with the next piece's MAIL FROM, one round trip a
// piece).
#include "bench_files.h"
#include "floor_client.h"
#include "measure.h"
#include "sink.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

extern char** environ;

namespace {

using bench::Clock;
using bench::kFrom;
using bench::kTo;

enum class Mode { Plain, Pipelining, StartTls };

// Opens a floor session with the sink of the mode; false (and the case
// skipped) when that fails.
bool open_session(benchmark::State& state, floor_session& session, Mode mode) {
    int opened = -1;
    if (mode == Mode::StartTls) {
        bench::TlsBench& tls = bench::tls();
        if (!tls.ok()) {
            state.SkipWithError("the TLS sink could not be set up (openssl command, test PKI)");
            return false;
        }
        opened = floor_open(&session, tls.sink().port(), tls.client(), tls.kServerName);
    } else {
        opened = floor_open(&session, bench::sink().port(), nullptr, nullptr);
    }
    if (opened != 0) state.SkipWithError("the floor client could not open a session");
    return opened == 0;
}

// Runs `base64 -w 76 FILE > OUT`; true when it exited 0.
bool run_base64(const std::string& file, const std::string& out) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return false;
    const char* argv[] = {"base64", "-w", "76", file.c_str(), nullptr};
    pid_t child = -1;
    const int spawned = posix_spawn_file_actions_addopen(&actions, 1, out.c_str(),
                                                         O_WRONLY | O_CREAT | O_TRUNC, 0600) == 0
                            ? posix_spawnp(&child, "base64", &actions, nullptr,
                                           const_cast<char* const*>(argv), environ)
                            : -1;
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return false;
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A finished message: a few header lines and the base64 text of the 100 MiB
// file with CR LF line ends, made once.
const std::string& finished_message() {
    static std::string message;
    if (!message.empty()) return message;
    const std::string encoded = "/tmp/kemail-bench-floor-" + std::to_string(getpid()) + ".b64";
    if (!run_base64(bench::attachment(100), encoded)) return message;
    std::string text;
    if (FILE* f = std::fopen(encoded.c_str(), "rb")) {
        char block[1 << 16];
        size_t n;
        while ((n = std::fread(block, 1, sizeof block, f)) > 0) text.append(block, n);
        std::fclose(f);
    }
    std::remove(encoded.c_str());
    message.reserve(text.size() + text.size() / 76 + 512);
    message =
        "From: bench@example.test\r\nTo: rcpt@example.test\r\nSubject: floor\r\n"
        "MIME-Version: 1.0\r\nContent-Type: application/octet-stream\r\n"
        "Content-Transfer-Encoding: base64\r\n\r\n";
    for (char c : text) {
        if (c == '\n') message += '\r';
        message += c;
    }
    return message;
}

void BM_Floor_HundredMiBWhole(benchmark::State& state, Mode mode) {
    const std::string& message = finished_message();
    if (message.empty()) {
        state.SkipWithError("base64 of the attachment failed");
        return;
    }
    const std::string encoded = "/tmp/kemail-bench-floor-" + std::to_string(getpid()) + ".tmp";
    double base64_s = 0, client_s = 0;
    const bench::CpuMeter cpu;
    for (auto _ : state) {
        const auto start = Clock::now();
        const bool encoded_ok = run_base64(bench::attachment(100), encoded);
        const auto mid = Clock::now();
        floor_session session;
        if (!encoded_ok || !open_session(state, session, mode)) {
            if (!encoded_ok) state.SkipWithError("coreutils base64 failed");
            break;
        }
        const int sent = floor_transaction(&session, kFrom, kTo, message.data(), message.size(), 0);
        floor_close(&session);
        const auto end = Clock::now();
        if (sent != 0) {
            state.SkipWithError("the floor client's transaction failed");
            break;
        }
        base64_s += std::chrono::duration<double>(mid - start).count();
        client_s += std::chrono::duration<double>(end - mid).count();
    }
    std::remove(encoded.c_str());
    cpu.report(state);
    const double n = static_cast<double>(state.iterations());
    state.counters["base64_s"] = base64_s / n;
    state.counters["client_s"] = client_s / n;
}
BENCHMARK_CAPTURE(BM_Floor_HundredMiBWhole, plain, Mode::Plain)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Floor_HundredMiBWhole, starttls, Mode::StartTls)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_Floor_HundredMiBSplit(benchmark::State& state, Mode mode) {
    const std::string& message = finished_message();
    if (message.empty()) {
        state.SkipWithError("base64 of the attachment failed");
        return;
    }
    constexpr size_t kPiece = bench::kPieceKib * 1024;
    const size_t pieces = (message.size() + kPiece - 1) / kPiece;
    const int flags = FLOOR_RESET | (mode == Mode::Pipelining ? FLOOR_PIPELINE : 0);
    bench::Sink& sink = mode == Mode::StartTls ? bench::tls().sink() : bench::sink();
    const unsigned long groups = sink.command_groups();
    const bench::CpuMeter cpu;
    for (auto _ : state) {
        floor_session session;
        if (!open_session(state, session, mode)) return;
        bool failed = false;
        for (size_t i = 0; i < pieces && !failed; ++i) {
            const size_t offset = i * kPiece;
            const size_t length = std::min(kPiece, message.size() - offset);
            failed = floor_transaction(&session, kFrom, kTo, message.data() + offset, length,
                                       flags) != 0;
        }
        floor_close(&session);
        if (failed) {
            state.SkipWithError("the floor client's transaction failed");
            return;
        }
    }
    // The sink's count of command groups is what the library's pipelining
    // case is checked with; the floor's groups must show in it.
    if ((sink.command_groups() > groups) != (mode == Mode::Pipelining)) {
        state.SkipWithError("the sink's count of pipelined command groups is wrong");
        return;
    }
    cpu.report(state);
    state.counters["pieces"] = static_cast<double>(pieces);
    state.counters["round_trips"] =
        static_cast<double>(pieces * (mode == Mode::Pipelining ? 1 : 5));
}
BENCHMARK_CAPTURE(BM_Floor_HundredMiBSplit, plain, Mode::Plain)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Floor_HundredMiBSplit, pipelining, Mode::Pipelining)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Floor_HundredMiBSplit, starttls, Mode::StartTls)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// `count` small mails, a new connection each; false when one failed.
bool small_mails(benchmark::State& state, Mode mode, const std::string& message, int count) {
    for (int i = 0; i < count; ++i) {
        floor_session session;
        if (!open_session(state, session, mode)) return false;
        const int sent = floor_transaction(&session, kFrom, kTo, message.data(), message.size(), 0);
        floor_close(&session);
        if (sent != 0) {
            state.SkipWithError("the floor client's transaction failed");
            return false;
        }
    }
    return true;
}

void BM_Floor_OneSmall(benchmark::State& state, Mode mode) {
    const std::string message = bench::small_message();
    const bench::CpuMeter cpu;
    for (auto _ : state) {
        if (!small_mails(state, mode, message, 1)) return;
    }
    cpu.report(state);
}
BENCHMARK_CAPTURE(BM_Floor_OneSmall, plain, Mode::Plain)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Floor_OneSmall, starttls, Mode::StartTls)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

void BM_Floor_ThousandSmall(benchmark::State& state, Mode mode) {
    const std::string message = bench::small_message();
    const bench::CpuMeter cpu;
    for (auto _ : state) {
        if (!small_mails(state, mode, message, 1000)) return;
    }
    cpu.report(state);
    state.counters["mails_per_s"] = benchmark::Counter(
        1000.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK_CAPTURE(BM_Floor_ThousandSmall, plain, Mode::Plain)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_Floor_ThousandSmall, starttls, Mode::StartTls)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);

}  // namespace
