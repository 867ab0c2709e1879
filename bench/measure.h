// What the send cases and their floors measure the same way: the CPU time of
// the sending side (the benchmark thread and the child processes it waited
// for, such as coreutils base64; the sink's thread is left out), and the
// names under which bench/run-floor.sh pairs a case with its floor.
//
// Every case is registered twice, BM_Kemail_<case> and BM_Floor_<case>, both
// with UseRealTime (wall time) and a counter cpu_s (CPU seconds per
// iteration).
#pragma once

#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <time.h>

namespace bench {

inline constexpr char kFrom[] = "bench@example.test";
inline constexpr char kTo[] = "rcpt@example.test";
inline constexpr size_t kPieceKib = 64;

class CpuMeter {
public:
    CpuMeter() : start_(now()) {}
    // Sets the counter cpu_s to the CPU seconds per iteration since the meter
    // was made.
    void report(benchmark::State& state) const {
        const double iterations = static_cast<double>(state.iterations());
        if (iterations > 0) state.counters["cpu_s"] = (now() - start_) / iterations;
    }

private:
    static double seconds(const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    }
    static double now() {
        timespec thread{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &thread);
        rusage children{};
        getrusage(RUSAGE_CHILDREN, &children);
        return static_cast<double>(thread.tv_sec) + static_cast<double>(thread.tv_nsec) / 1e9 +
               seconds(children.ru_utime) + seconds(children.ru_stime);
    }
    double start_;
};

}  // namespace bench
