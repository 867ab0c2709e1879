// Composing a message with one large attachment into the message file: the
// base64 part of 1 MiB and of 100 MiB (time should grow with the size,
// memory should not), next to coreutils base64 of the same file. Every run
// reports the process's peak resident set (VmHWM, reset before the run).
//   ./compose_bench --benchmark_filter=Attachment
#include "kemail.h"
#include "support/temp_dir.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Writes size bytes of varied content in 1 MiB steps (never all in memory).
bool make_attachment(const std::string& path, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    std::vector<unsigned char> chunk(1 << 20);
    unsigned state = 12345;
    for (auto& b : chunk) {
        state = state * 1103515245u + 12345u;
        b = static_cast<unsigned char>(state >> 16);
    }
    bool ok = true;
    for (size_t done = 0; ok && done < size;) {
        const size_t n = std::min(chunk.size(), size - done);
        ok = write(fd, chunk.data(), n) == static_cast<ssize_t>(n);
        done += n;
    }
    return close(fd) == 0 && ok;
}

// Peak resident set of this process in KiB; reset_peak() starts a new peak.
long peak_rss_kib() {
    FILE* f = std::fopen("/proc/self/status", "re");
    if (!f) return -1;
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, f)) {
        if (std::strncmp(line, "VmHWM:", 6) == 0) kib = std::strtol(line + 6, nullptr, 10);
    }
    std::fclose(f);
    return kib;
}

void reset_peak() {
    const int fd = open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    if (write(fd, "5", 1) != 1) {
        // Older kernels cannot reset the peak; it is then the process's peak.
    }
    close(fd);
}

struct Fixture {
    kemail_test::TempDir dir;  // never the package's fixed directories
    std::string attachment;
    std::string message;
    bool ready = false;
    explicit Fixture(size_t size) {
        attachment = dir.file("attachment.bin");
        message = dir.file("message");
        ready = make_attachment(attachment, size);
    }
};

void BM_AttachmentIntoMessageFile(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0)) << 20;
    Fixture fixture(size);
    const int fd = open(fixture.message.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (!fixture.ready || fd < 0) {
        state.SkipWithError("cannot create the files");
        return;
    }
    char boundary[KEMAIL_BOUNDARY_SIZE] = {};
    SMTP_makeBoundary(boundary);
    reset_peak();
    unsigned int err = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) state.SkipWithError("truncate");
        state.ResumeTiming();
        if (SMTP_makeAppendData(fd, fixture.attachment.c_str(), boundary, 0, &err) != 0) {
            state.SkipWithError("SMTP_makeAppendData failed");
            break;
        }
    }
    struct stat st = {};
    fstat(fd, &st);
    close(fd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
    state.counters["message_MiB"] = static_cast<double>(st.st_size) / (1 << 20);
    state.counters["peak_rss_KiB"] = static_cast<double>(peak_rss_kib());
}
BENCHMARK(BM_AttachmentIntoMessageFile)
    ->Arg(1)
    ->Arg(100)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The same file through coreutils base64 (68 characters a line, LF line
// ends), as a yardstick: a separate process, so its memory is not ours.
void BM_CoreutilsBase64(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0)) << 20;
    Fixture fixture(size);
    if (!fixture.ready) {
        state.SkipWithError("cannot create the files");
        return;
    }
    const std::string command =
        "base64 -w 68 '" + fixture.attachment + "' > '" + fixture.message + "'";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("base64 failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}
BENCHMARK(BM_CoreutilsBase64)->Arg(1)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
