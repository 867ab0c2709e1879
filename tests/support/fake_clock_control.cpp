#include "support/fake_clock.h"

#include <dlfcn.h>

#include <cstdio>

namespace kemail_test {

namespace {

// The preloaded clock's control functions, or null without it.
template <typename Fn>
Fn control(const char* name) {
    return reinterpret_cast<Fn>(::dlsym(RTLD_DEFAULT, name));
}

using VoidFn = void (*)();
using SilenceFn = void (*)(int);
using AdvancedFn = long long (*)();

}  // namespace

FakeClock::FakeClock() {
    if (auto start = control<VoidFn>("kemail_fake_clock_start")) {
        start();
        active_ = true;
    } else {
        std::fprintf(stderr, "note: no test clock preloaded; this test waits in real time\n");
    }
}

FakeClock::~FakeClock() {
    if (silenced_) fake_clock_silence(-1);
    if (!active_) return;
    if (auto stop = control<VoidFn>("kemail_fake_clock_stop")) stop();
}

long long FakeClock::advanced_ms() const {
    auto advanced = control<AdvancedFn>("kemail_fake_clock_advanced_ms");
    return advanced ? advanced() : 0;
}

void FakeClock::peer_silent() {
    if (silenced_) return;
    silenced_ = true;
    fake_clock_silence(+1);
}

void fake_clock_silence(int delta) {
    if (auto silence = control<SilenceFn>("kemail_fake_clock_silence")) silence(delta);
}

}  // namespace kemail_test
