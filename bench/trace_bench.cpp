// Cost of tracing and mail logging on the send path: one trace record of 32
// data bytes, one record filtered out by the handle's level, and one
// mail-log line. A trace write is meant to cost no system call; check with
//   strace -c -f ./trace_bench --benchmark_filter=Twrite
// that the system call count stays far below the iteration count.
#include "kemail.h"
#include "support/temp_dir.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A 32-byte record through a level-1 handle: written at event level 1,
// filtered out at event level 2.
void BM_TwriteData32(benchmark::State& state) {
    const unsigned event_level = static_cast<unsigned>(state.range(0));
    kemail_test::TempDir dir;  // never the package's fixed directories
    TraceHandle* handle = Topen(dir.file("bench.trc").c_str(), 100, 1);
    if (!handle) {
        state.SkipWithError("cannot open a trace file");
        return;
    }
    unsigned char data[32];
    std::memset(data, 0xa5, sizeof data);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Twrite(handle, event_level, "smtp0121A", data, sizeof data));
    }
    Tclose(handle);
}
BENCHMARK(BM_TwriteData32)->Arg(1)->Arg(2)->ArgName("event_level");

// The handle is made by hand over a scratch file, since MailLogOpen always
// writes into the package's log directory.
void BM_MailLogWriteLine(benchmark::State& state) {
    kemail_test::TempDir dir;  // never the package's fixed directories
    const std::string path = dir.file("kesmtp.log");
    MailLogHandle handle = {};
    handle.log_size = 20;
    handle.log_num = 20;
    handle.fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (handle.fd < 0) {
        state.SkipWithError("cannot open a log file");
        return;
    }
    std::snprintf(handle.path, sizeof handle.path, "%s", path.c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(MailLogWrite(&handle, 1, "MAIL FROM:<agent@example.com>"));
    }
    struct stat status;
    const bool written = ::fstat(handle.fd, &status) == 0 && status.st_size > 0;
    ::close(handle.fd);
    if (!written) state.SkipWithError("the log lines never reached the file");
}
BENCHMARK(BM_MailLogWriteLine);

}  // namespace

BENCHMARK_MAIN();
