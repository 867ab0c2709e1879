// The trace tap and the select spy of this test program, and checks that
// they see what the library does. Twrite and select are interposed here:
// the library calls them through the dynamic linker, which finds this
// program's definitions first; each forwards to the next definition.
#include "smtp_test_support.h"

#include "support/temp_dir.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

namespace smtp_test {
namespace {

std::mutex g_tap_mutex;
std::vector<TraceEvent> g_events;
pthread_t g_tap_thread;
bool g_tap_thread_set = false;

std::mutex g_spy_mutex;
std::atomic<bool> g_spy_on{false};
pthread_t g_spy_thread;
std::vector<struct timeval> g_spy_waits;

}  // namespace

void trace_clear() {
    std::lock_guard<std::mutex> lock(g_tap_mutex);
    g_events.clear();
    g_tap_thread = pthread_self();
    g_tap_thread_set = true;
}

std::vector<TraceEvent> trace_events() {
    std::lock_guard<std::mutex> lock(g_tap_mutex);
    return g_events;
}

std::vector<std::string> trace_codes() {
    std::vector<std::string> codes;
    for (const TraceEvent& event : trace_events()) codes.push_back(event.code);
    return codes;
}

int trace_count(const std::string& code) {
    int count = 0;
    for (const TraceEvent& event : trace_events()) count += event.code == code;
    return count;
}

TraceEvent trace_find(const std::string& code) {
    for (const TraceEvent& event : trace_events()) {
        if (event.code == code) return event;
    }
    return TraceEvent{99, "", ""};
}

bool traced_in_order(const std::vector<std::string>& codes) {
    size_t next = 0;
    for (const TraceEvent& event : trace_events()) {
        if (next < codes.size() && event.code == codes[next]) ++next;
    }
    return next == codes.size();
}

void select_spy_start() {
    std::lock_guard<std::mutex> lock(g_spy_mutex);
    g_spy_waits.clear();
    g_spy_thread = pthread_self();
    g_spy_on = true;
}

std::vector<struct timeval> select_spy_stop() {
    std::lock_guard<std::mutex> lock(g_spy_mutex);
    g_spy_on = false;
    return g_spy_waits;
}

void set_phase_timeouts(uint32_t seconds) {
    const SmtpTimeOut values = {seconds, seconds, seconds, seconds, seconds, seconds};
    SMTP_SetTimeOutInfo(&values);
    SMTP_SetTimeOut(seconds);
    SMTP_SetStartTime();
}

SocketPair::SocketPair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
    ours = fds[0];
    peer = fds[1];
}

SocketPair::~SocketPair() {
    if (ours >= 0) close(ours);
    close_peer();
}

void SocketPair::peer_send(const std::string& bytes) const {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(peer, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) std::abort();
        sent += static_cast<size_t>(n);
    }
}

std::string SocketPair::peer_read_available() const {
    std::string bytes;
    char buf[4096];
    for (;;) {
        const ssize_t n = recv(peer, buf, sizeof buf, MSG_DONTWAIT);
        if (n <= 0) break;
        bytes.append(buf, static_cast<size_t>(n));
    }
    return bytes;
}

void SocketPair::close_peer() {
    if (peer >= 0) close(peer);
    peer = -1;
}

StagedFile::StagedFile(const std::string& bytes) {
    char name[] = "/tmp/kemail-smtp-test.XXXXXX";
    const int made = mkstemp(name);
    if (made < 0) std::abort();
    close(made);
    path = name;
    kemail_test::write_file(path, bytes);
    fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) std::abort();
}

StagedFile::~StagedFile() {
    if (fd >= 0) close(fd);
    unlink(path.c_str());
}

std::string last_reply() {
    char text[256];
    std::memset(text, 'x', sizeof text);
    SMTP_GetSmtpSvResponce(text);
    return text;
}

uint32_t word_of(const TraceEvent& event) {
    uint32_t word = 0xFFFFFFFFu;
    if (event.data.size() == sizeof word) std::memcpy(&word, event.data.data(), sizeof word);
    return word;
}

}  // namespace smtp_test

extern "C" int Twrite(TraceHandle* pHandle, unsigned int ulLevel, const char* pszCode,
                      const void* pData, unsigned int ulLength) noexcept {
    const int saved_errno = errno;
    {
        std::lock_guard<std::mutex> lock(smtp_test::g_tap_mutex);
        if (smtp_test::g_tap_thread_set && pthread_equal(pthread_self(), smtp_test::g_tap_thread)) {
            smtp_test::TraceEvent event{ulLevel, pszCode ? pszCode : "", ""};
            if (pData && ulLength > 0) event.data.assign(static_cast<const char*>(pData), ulLength);
            smtp_test::g_events.push_back(std::move(event));
        }
    }
    using TwriteFn = int (*)(TraceHandle*, unsigned int, const char*, const void*, unsigned int);
    static const TwriteFn next = reinterpret_cast<TwriteFn>(dlsym(RTLD_NEXT, "Twrite"));
    errno = saved_errno;
    return next ? next(pHandle, ulLevel, pszCode, pData, ulLength) : 0;
}

extern "C" int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                      struct timeval* timeout) {
    if (smtp_test::g_spy_on && timeout) {
        std::lock_guard<std::mutex> lock(smtp_test::g_spy_mutex);
        if (pthread_equal(pthread_self(), smtp_test::g_spy_thread)) {
            smtp_test::g_spy_waits.push_back(*timeout);
        }
    }
    using SelectFn = int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
    static const SelectFn next = reinterpret_cast<SelectFn>(dlsym(RTLD_NEXT, "select"));
    return next(nfds, readfds, writefds, exceptfds, timeout);
}

namespace {

using namespace smtp_test;

TEST(TraceTap, SeesTheLibrarysRecordsWithLevelAndData) {
    trace_clear();
    char out[256];
    SMTP_GetSmtpSvResponce(out);
    unsigned int mask = 0;
    SMTP_getAuthMechanisms("250-AUTH PLAIN", &mask);
    EXPECT_TRUE(traced_in_order(
        {"GETSMTP0000", "GETSMTPFFFF", "GTAINF0000", "GTAINF0005", "GTAINF0015", "GTAINFFFFF"}));
    const TraceEvent parsed = trace_find("GTAINF0005");
    EXPECT_EQ(parsed.level, 2u);
    EXPECT_EQ(parsed.data, "250-AUTH PLAIN");
    EXPECT_EQ(word_of(trace_find("GTAINFFFFF")), 2u);
    EXPECT_EQ(trace_find("GTAINFFFFF").level, 1u);
}

TEST(SelectSpy, SeesTheWaitOfTheReader) {
    SocketPair pair;
    pair.peer_send("250 ok\r\n");
    set_phase_timeouts(7);
    select_spy_start();
    char buf[KEMAIL_RECV_BUF_SIZE];
    unsigned int err = 1;
    EXPECT_EQ(SMTP_recv(pair.ours, buf, sizeof buf, &err), 0);
    const std::vector<struct timeval> waits = select_spy_stop();
    ASSERT_FALSE(waits.empty());
    EXPECT_GE(waits[0].tv_sec, 6);
    EXPECT_LE(waits[0].tv_sec, 7);
    EXPECT_EQ(waits[0].tv_usec, 0);
}

}  // namespace
