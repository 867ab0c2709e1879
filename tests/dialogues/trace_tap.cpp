// The trace tap of the dialogue runner: Twrite is interposed in this program
// (the library calls it through the dynamic linker, which finds this
// definition first); it keeps the records written by the tapped thread and
// forwards every record to the library's own Twrite.
#include "dialogues/trace_tap.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <mutex>

namespace dialogue {
namespace {

std::mutex g_mutex;
std::vector<TraceEvent> g_events;
pthread_t g_thread;
bool g_thread_set = false;

}  // namespace

void tap_start() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_events.clear();
    g_thread = pthread_self();
    g_thread_set = true;
}

std::vector<TraceEvent> tapped() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_events;
}

}  // namespace dialogue

extern "C" int Twrite(TraceHandle* pHandle, unsigned int ulLevel, const char* pszCode,
                      const void* pData, unsigned int ulLength) noexcept {
    const int saved_errno = errno;
    {
        std::lock_guard<std::mutex> lock(dialogue::g_mutex);
        if (dialogue::g_thread_set && pthread_equal(pthread_self(), dialogue::g_thread)) {
            dialogue::TraceEvent event{ulLevel, pszCode ? pszCode : "", ""};
            if (pData && ulLength > 0) event.data.assign(static_cast<const char*>(pData), ulLength);
            dialogue::g_events.push_back(std::move(event));
        }
    }
    using TwriteFn = int (*)(TraceHandle*, unsigned int, const char*, const void*, unsigned int);
    static const TwriteFn next = reinterpret_cast<TwriteFn>(dlsym(RTLD_NEXT, "Twrite"));
    errno = saved_errno;
    return next ? next(pHandle, ulLevel, pszCode, pData, ulLength) : 0;
}
