// The floor beside each send_bench case: the same exchange done by the
// minimal C client of floor_client.c against the same sink, in the same
// process, so that the two figures of one run can be compared directly.
//
//   BM_Floor_HundredMiBWhole  coreutils base64 of the 100 MiB file, then the
//                             finished message sent in one transaction
//   BM_Floor_HundredMiBSplit  the same message cut into 64 KiB pieces, one
//                             transaction and RSET each (five round trips)
//   BM_Floor_ThousandSmall    1000 small mails, a new connection each
#include "bench_files.h"
#include "floor_client.h"
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
using bench::sink;

constexpr char kFrom[] = "bench@example.test";
constexpr char kTo[] = "rcpt@example.test";

// Runs `base64 -w 76 FILE > OUT`; true when it exited 0.
bool run_base64(const std::string& file, const std::string& out) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const char* argv[] = {"base64", "-w", "76", file.c_str(), nullptr};
    pid_t child = -1;
    const int spawned =
        posix_spawnp(&child, "base64", &actions, nullptr, const_cast<char* const*>(argv), environ);
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

void BM_Floor_HundredMiBWhole(benchmark::State& state) {
    const std::string& message = finished_message();
    if (message.empty()) {
        state.SkipWithError("base64 of the attachment failed");
        return;
    }
    const std::string encoded = "/tmp/kemail-bench-floor-" + std::to_string(getpid()) + ".tmp";
    double base64_s = 0, client_s = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const bool encoded_ok = run_base64(bench::attachment(100), encoded);
        const auto mid = Clock::now();
        const int sock = floor_open(sink().port());
        const int sent = floor_transaction(sock, kFrom, kTo, message.data(), message.size(), 0);
        floor_close(sock);
        const auto end = Clock::now();
        if (!encoded_ok || sock < 0 || sent != 0) {
            state.SkipWithError("the floor client failed");
            break;
        }
        base64_s += std::chrono::duration<double>(mid - start).count();
        client_s += std::chrono::duration<double>(end - mid).count();
    }
    std::remove(encoded.c_str());
    const double n = static_cast<double>(state.iterations());
    state.counters["base64_s"] = base64_s / n;
    state.counters["client_s"] = client_s / n;
}
BENCHMARK(BM_Floor_HundredMiBWhole)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Floor_HundredMiBSplit(benchmark::State& state) {
    const std::string& message = finished_message();
    if (message.empty()) {
        state.SkipWithError("base64 of the attachment failed");
        return;
    }
    constexpr size_t kPiece = 64 * 1024;
    const size_t pieces = (message.size() + kPiece - 1) / kPiece;
    for (auto _ : state) {
        const int sock = floor_open(sink().port());
        int failed = sock < 0;
        for (size_t i = 0; i < pieces && !failed; ++i) {
            const size_t offset = i * kPiece;
            const size_t length = std::min(kPiece, message.size() - offset);
            failed = floor_transaction(sock, kFrom, kTo, message.data() + offset, length, 1) != 0;
        }
        floor_close(sock);
        if (failed) {
            state.SkipWithError("the floor client failed");
            break;
        }
    }
    state.counters["pieces"] = static_cast<double>(pieces);
    state.counters["round_trips"] = static_cast<double>(pieces * 5);
}
BENCHMARK(BM_Floor_HundredMiBSplit)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Floor_ThousandSmall(benchmark::State& state) {
    const std::string message = bench::small_message();
    for (auto _ : state) {
        for (int i = 0; i < 1000; ++i) {
            const int sock = floor_open(sink().port());
            const int sent = floor_transaction(sock, kFrom, kTo, message.data(), message.size(), 0);
            floor_close(sock);
            if (sock < 0 || sent != 0) {
                state.SkipWithError("the floor client failed");
                return;
            }
        }
    }
    state.counters["mails_per_s"] = benchmark::Counter(
        1000.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Floor_ThousandSmall)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
