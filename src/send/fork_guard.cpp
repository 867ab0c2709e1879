// A child forked while another thread of the process is inside the library
// starts with the library free: every lock is held by the forking thread
// while the process forks, so none is copied held by a thread the child does
// not have, and the child's busy flag is cleared, since the send it marks
// runs on a thread the child does not have either. Without this a child
// would wait for ever at its first trace record, or be told -9 at every send.
#include "log/log.h"
#include "options/options.h"
#include "send/send_internal.h"
#include "tls/channel.h"

#include <iterator>

#include <pthread.h>

namespace {

struct ForkHold {
    void (*hold)();
    void (*release)();
};

// No lock of the library is taken while another is held, nor held across a
// call into OpenSSL, so they can be taken in any order without waiting on a
// thread that waits for the forking one; they are let go in reverse.
constexpr ForkHold kHolds[] = {
    {kemail::Trc_HoldForFork, kemail::Trc_ReleaseAfterFork},
    {kemail::Trc_HoldRingsForFork, kemail::Trc_ReleaseRingsAfterFork},
    {kemail::DeleteOldFiles_HoldForFork, kemail::DeleteOldFiles_ReleaseAfterFork},
    {kemail::options::hold_for_fork, kemail::options::release_after_fork},
    {kemail::tls::hold_for_fork, kemail::tls::release_after_fork},
};

void before_fork() {
    for (const ForkHold& lock : kHolds) lock.hold();
}

void after_fork_in_parent() {
    for (size_t i = std::size(kHolds); i > 0; --i) kHolds[i - 1].release();
}

void after_fork_in_child() {
    after_fork_in_parent();
    kemail::release_busy_flag();
}

// pthread_atfork has nothing to report a failure to at load time; without
// the handlers a fork behaves as it did before them.
[[gnu::constructor]] void watch_forks() {
    (void)pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

}  // namespace
