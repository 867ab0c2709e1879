// A process that forks while another of its threads is inside the library:
// the child starts with every lock free and no send marked as running.
//
// Each lock test holds one lock from a helper thread, as a thread in the
// middle of a trace record or a settings change would, and forks: the fork
// waits until the helper lets go, and the child then takes the lock itself.
// A lock the fork did not wait for would be copied held, and the child
// would wait for ever (here: until the bound kills it).
#include "log/log.h"
#include "options/options.h"
#include "send_fixture.h"
#include "support/bounded_child.h"
#include "support/temp_dir.h"
#include "tls/channel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using kemail_test::ChildResult;
using kemail_test::run_bounded;
using kemail_test::TempDir;

constexpr int kChildBoundMs = 5000;
constexpr auto kHeld = std::chrono::milliseconds(300);

// Holds a lock on a thread of its own for kHeld, from construction on.
class HeldLock {
public:
    HeldLock(void (*hold)(), void (*release)()) {
        thread_ = std::thread([this, hold, release] {
            hold();
            holding_ = true;
            std::this_thread::sleep_for(kHeld);
            release();
        });
        while (!holding_) std::this_thread::yield();
    }
    ~HeldLock() { thread_.join(); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

private:
    std::atomic<bool> holding_{false};
    std::thread thread_;
};

// Forks while the lock is held; the child runs body and reports its result.
ChildResult fork_while_held(void (*hold)(), void (*release)(), const std::function<int()>& body) {
    const HeldLock held(hold, release);
    return run_bounded(kChildBoundMs, body);
}

void expect_child_done(const ChildResult& child) {
    ASSERT_TRUE(child.finished) << "the child waited for a lock until it was killed";
    EXPECT_EQ(child.value, 0);
}

TEST(ForkGuard, TheTraceLockIsFreeInTheChild) {
    TempDir dir;
    const std::string path = dir.file("fork.trc");
    TraceHandle* handle = Topen(path.c_str(), 8, 1);
    ASSERT_NE(handle, nullptr);
    expect_child_done(fork_while_held(kemail::Trc_HoldForFork, kemail::Trc_ReleaseAfterFork, [&] {
        // A record under the lock, and a second handle's open and close
        // under the guard of the lock's users.
        if (Twrite(handle, 0, "FORK0000", "child", 5) != 0) return 1;
        TraceHandle* other = Topen(dir.file("other.trc").c_str(), 8, 1);
        if (other == nullptr) return 2;
        return Tclose(other) == 0 ? 0 : 3;
    }));
    EXPECT_EQ(Tclose(handle), 0);
    EXPECT_NE(kemail_test::read_file(path).find("FORK0000"), std::string::npos);
}

TEST(ForkGuard, TheKeptRingsLockIsFreeInTheChild) {
    TempDir dir;
    const std::string path = dir.file("ring.trc");
    expect_child_done(
        fork_while_held(kemail::Trc_HoldRingsForFork, kemail::Trc_ReleaseRingsAfterFork, [&] {
            for (int i = 0; i < 2; ++i) {
                TraceHandle* handle = Topen(path.c_str(), 8, 1);
                if (handle == nullptr || Tclose(handle) != 0) return 1;
            }
            return 0;
        }));
}

TEST(ForkGuard, TheOldFileScanLockIsFreeInTheChild) {
    TempDir dir;
    expect_child_done(
        fork_while_held(kemail::DeleteOldFiles_HoldForFork, kemail::DeleteOldFiles_ReleaseAfterFork,
                        [&] { return DeleteOldFiles_DIR(dir.path().c_str(), "fork", "", 3, 1); }));
}

TEST(ForkGuard, TheSettingsLockIsFreeInTheChild) {
    expect_child_done(fork_while_held(kemail::options::hold_for_fork,
                                      kemail::options::release_after_fork,
                                      [] { return ZvKe_SetOption("PIPELINING", "1"); }));
    EXPECT_EQ(ZvKe_SetOption("PIPELINING", nullptr), 0);
}

TEST(ForkGuard, TheTlsSessionLockIsFreeInTheChild) {
    expect_child_done(
        fork_while_held(kemail::tls::hold_for_fork, kemail::tls::release_after_fork,
                        [] { return kemail::tls::session_for(STDIN_FILENO) == nullptr ? 0 : 1; }));
}

// A server that takes connections into its backlog and says nothing until
// it hangs up on the first one.
class SilentServer {
public:
    SilentServer() {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd_, 4) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        port_ = ntohs(address.sin_port);
    }
    ~SilentServer() {
        if (fd_ >= 0) close(fd_);
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;
    uint16_t port() const { return port_; }
    void hang_up() const {
        const int connection = accept(fd_, nullptr, nullptr);
        if (connection >= 0) close(connection);
    }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

TEST(ForkGuard, AChildForkedDuringASendCanSendItself) {
    SilentServer silent;
    ASSERT_NE(silent.port(), 0);
    kemail_test::SmtpSink sink;

    // This send waits for a greeting until the server hangs up.
    int stalled_result = KEMAIL_OK;
    std::thread stalled([&] {
        send_test::Mail mail(silent.port());
        stalled_result = mail.send();
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (__atomic_load_n(&g_ulSendBusy, __ATOMIC_ACQUIRE) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    const bool busy_at_fork = __atomic_load_n(&g_ulSendBusy, __ATOMIC_ACQUIRE) == 1;
    ChildResult child;
    if (busy_at_fork) {
        child = run_bounded(10000, [&] {
            send_test::Mail mail(sink.port());
            return mail.send();
        });
    }
    const bool busy_after = __atomic_load_n(&g_ulSendBusy, __ATOMIC_ACQUIRE) == 1;
    silent.hang_up();
    stalled.join();

    ASSERT_TRUE(busy_at_fork) << "the stalled send never marked itself as running";
    ASSERT_TRUE(busy_after) << "the stalled send ended before the child was done";
    ASSERT_TRUE(child.finished);
    EXPECT_EQ(child.value, KEMAIL_OK);
    EXPECT_EQ(sink.messages(), 1u);
    // The parent's own send failed when the server hung up.
    EXPECT_NE(stalled_result, KEMAIL_OK);
    EXPECT_NE(stalled_result, KEMAIL_E_BUSY);
}

}  // namespace
