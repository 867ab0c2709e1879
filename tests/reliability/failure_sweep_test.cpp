// Failure sweeps in the manner of SQLite's malloc and I/O tests: a send is
// run once to count every system call and allocation libkemail makes, then
// once more for every one of those calls with that call failed (an error
// number, EINTR, a short transfer, a full disk, no memory, the clock set back
// or jumping past the time-out). Each injected run is a child process bounded
// in time; it must end with a result the send's failure table allows for the
// failed call, the designed detail in the message buffer, no work file, no
// trace temporary and no descriptor left behind, the kind-4 attachment kept
// whenever the send failed, and a server that accepted nothing but whole,
// exact pieces of the composed mail; 0 only when it accepted all of them.
//
// Every call is injected (about 3,300 runs, some 40 seconds on two cores);
// KEMAIL_SWEEP_SAMPLE=n injects at no more than n calls of each kind, spread
// evenly, for a quicker look.
#include "reliability/fault_inject.h"
#include "reliability/sweep_support.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

namespace reliability {
namespace {

// The injector's control functions, found in the preloaded library.
struct Injector {
    int (*reset)();
    void (*arm)(int, long, int);
    void (*disarm)();
    long (*count)(int);
    int (*fired)(char*, size_t);
    int (*errno_of)(int);
};

const Injector& injector() {
    static const Injector fi = [] {
        Injector i{};
        i.reset = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "fi_reset"));
        i.arm = reinterpret_cast<void (*)(int, long, int)>(dlsym(RTLD_DEFAULT, "fi_arm"));
        i.disarm = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "fi_disarm"));
        i.count = reinterpret_cast<long (*)(int)>(dlsym(RTLD_DEFAULT, "fi_count"));
        i.fired = reinterpret_cast<int (*)(char*, size_t)>(dlsym(RTLD_DEFAULT, "fi_fired"));
        i.errno_of = reinterpret_cast<int (*)(int)>(dlsym(RTLD_DEFAULT, "fi_errno_of"));
        return i;
    }();
    return fi;
}

const char* const kCallNames[FI_CALL_COUNT] = {"send",   "recv",   "select",  "read",   "write",
                                               "open",   "lseek",  "stat",    "unlink", "mmap",
                                               "malloc", "socket", "connect", "close",  "time"};
const char* const kModeNames[FI_MODE_COUNT] = {"errno",  "EINTR",      "short",
                                               "ENOSPC", "clock-back", "clock-forward"};

// The ways each kind of call is failed.
std::vector<int> modes_of(int call) {
    switch (call) {
        case FI_SEND:
        case FI_RECV: return {FI_ERRNO, FI_EINTR, FI_SHORT};
        case FI_WRITE: return {FI_ERRNO, FI_EINTR, FI_SHORT, FI_ENOSPC};
        case FI_SELECT:
        case FI_READ:
        case FI_OPEN:
        case FI_CONNECT:
        case FI_CLOSE: return {FI_ERRNO, FI_EINTR};
        case FI_TIME: return {FI_CLOCK_BACK, FI_CLOCK_FORWARD};
        default: return {FI_ERRNO};
    }
}

// ------------------------------------------------------------ scenarios

struct Scenario {
    const char* name;
    unsigned split;
    int part_size_kb;
    size_t big_attachment;  // bytes of the kind-3 attachment
};

const Scenario kWhole{"whole", 0, 64, 3000};
const Scenario kSplit{"split", 1, 10, 30 * 1024};

// The attachments a scenario's request names, made once per test program.
struct Files {
    kemail_test::TempDir dir;
    std::string keep = dir.file("keep.bin");  // kind 3
    std::string drop = dir.file("drop.bin");  // kind 4: made anew for every run
    std::string drop_bytes = pattern_bytes(2000, 2);
};

Request make_request(const Scenario& s, const Files& files) {
    Request r;
    // Shift_JIS text, a line that needs dot-stuffing, a last line without LF.
    r.text =
        std::string("Failure sweep\n\x82\xb1\x82\xf1\x82\xc9\x82\xbf\x82\xcd\r\n.dot line\nlast");
    r.attachments = {{KEMAIL_CONTENT_ATTACHMENT, files.keep},
                     {KEMAIL_CONTENT_ATTACHMENT_DELETE, files.drop}};
    r.split = s.split;
    r.option.lPartSize = s.part_size_kb;
    return r;
}

// ------------------------------------------------------------ one run

struct Baseline {
    std::vector<std::string> expected;  // masked
    std::string log;                    // the mail log, digits masked
    long counts[FI_CALL_COUNT] = {};
};

struct Outcome {
    int ended = 0;  // 0 ran to its end, 1 crashed (signal), 2 hung
    int result = 0;
    int fired = 0;
    char target[256] = {};
    char message[KEMAIL_MESSAGE_SIZE] = {};
    char verdict[1024] = {};  // empty when every check held
};

// Whether this thread's "acert" trace file of this process holds the end of
// a successful send. The ring may have wrapped over its beginning, and a
// record may be split by the wrap, so any of the last three will do.
bool trace_closed() {
    const std::string path = kTraceDir + "/acert" + std::to_string(getpid()) + "-" +
                             std::to_string(static_cast<int>(pthread_self())) + ".trc";
    if (access(path.c_str(), F_OK) != 0) return false;
    const std::string trace = kemail_test::read_file(path);
    for (const char* code : {"EMAILAPIFFFF", "ENDPROCFFFF", "ACERTFFFF"}) {
        if (trace.find(code) != std::string::npos) return true;
    }
    return false;
}

// Work files of an earlier process that had this process's id: the send
// deletes any file of its work files' names before it makes its own, and
// must never send what such a file held.
const std::string kStaleBytes(64 * 1024, 'Z');

void plant_stale_work_files() {
    const std::string suffix =
        std::to_string(getpid()) + "-" + std::to_string(static_cast<int>(pthread_self()));
    kemail_test::write_file(kWorkDir + "/EMT" + suffix, kStaleBytes);
    kemail_test::write_file(kWorkDir + "/EST" + suffix, kStaleBytes);
}

// A planted file the send never came to (it failed before it named that
// work file) is not the send's.
bool untouched_stale_file(const std::string& path) {
    return kemail_test::read_file(path) == kStaleBytes;
}

// This process's mail log with every run of digits (times, process id)
// masked as one 0.
std::string masked_mail_log() {
    std::string log;
    const std::string path = "/var/opt/QRZNvolta/log/kesmtp" + std::to_string(getpid()) + ".log";
    if (access(path.c_str(), F_OK) == 0) log = kemail_test::read_file(path);
    std::string out;
    for (const char c : log) {
        const bool digit = c >= '0' && c <= '9';
        if (!digit || out.empty() || out.back() != '0') out.push_back(digit ? '0' : c);
    }
    return out;
}

bool all_digits(const char* s) {
    if (*s == '\0') return false;
    for (; *s; ++s) {
        if (*s < '0' || *s > '9') return false;
    }
    return true;
}

enum class Target { Socket, WorkFile, Attachment, Other };

Target classify(int call, const std::string& target, const Files& files) {
    if (call == FI_SEND || call == FI_RECV || call == FI_SELECT || call == FI_SOCKET ||
        call == FI_CONNECT || target.rfind("socket:", 0) == 0)
        return Target::Socket;
    if (target.find(kWorkDir + "/EMT") != std::string::npos ||
        target.find(kWorkDir + "/EST") != std::string::npos)
        return Target::WorkFile;
    if (target == files.keep || target == files.drop) return Target::Attachment;
    return Target::Other;
}

// The results a failed call may end in, as the send's failure table gives
// them for the step the call belongs to. A result of 0 always requires the
// exact mail; the caller checks that.
std::set<int> allowed_results(int call, int mode, Target target) {
    if (mode == FI_EINTR || mode == FI_SHORT || mode == FI_CLOCK_BACK) return {KEMAIL_OK};
    // A time-out; or, when it hit the RSET between pieces (whose result the
    // send ignores), the later replies are out of step and a command seems
    // refused.
    if (mode == FI_CLOCK_FORWARD) return {KEMAIL_OK, KEMAIL_E_TIMEOUT, KEMAIL_E_REFUSED};
    if (call == FI_MALLOC) return {KEMAIL_OK, KEMAIL_E_NO_MEMORY};
    // A failed close has released the descriptor; nothing is lost by it.
    if (call == FI_CLOSE) return {KEMAIL_OK};
    switch (target) {
        case Target::Socket:
            if (call == FI_CONNECT) return {KEMAIL_E_UNREACHABLE};
            if (call == FI_SOCKET) return {KEMAIL_E_SOCKET};
            // A failed RSET between pieces does not stop the send.
            if (call == FI_SEND) return {KEMAIL_E_SOCKET, KEMAIL_OK};
            // A reply that cannot be read: the session's end (QUIT's reply is
            // not needed), or a failure; after a lost RSET reply the next
            // replies are out of step and a command seems refused.
            return {KEMAIL_OK, KEMAIL_E_SOCKET, KEMAIL_E_REFUSED};
        case Target::WorkFile:
            // Deleting a work file is the last thing done with it.
            if (call == FI_UNLINK) return {KEMAIL_OK};
            return {KEMAIL_E_WORK_FILE};
        case Target::Attachment:
            // The size estimate's stat fails the send with -8; composition's
            // fstat of the opened attachment fails it like the open, -3.
            if (call == FI_STAT && mode == FI_ERRNO)
                return {KEMAIL_E_ATTACHMENT, KEMAIL_E_WORK_FILE, KEMAIL_OK};
            if (call == FI_UNLINK) return {KEMAIL_OK};
            return {KEMAIL_E_WORK_FILE};
        case Target::Other:
            // Trace file, mail log, configuration: not on the mail's path.
            return {KEMAIL_OK};
    }
    return {};
}

std::string join(const std::set<int>& values) {
    std::string text;
    for (int v : values) {
        // Appended piece by piece: GCC 12 at -O2 and above reports a false
        // -Wrestrict overlap inside operator+(const char*, string&&).
        if (!text.empty()) text += ',';
        text += std::to_string(v);
    }
    return text;
}

// The checks of one injected run, made in the child.
std::string judge(int call, int mode, const Request& request, int result, const std::string& target,
                  bool fired, const std::vector<std::string>& accepted,
                  const std::string& last_reply, size_t fds_before, size_t fds_after,
                  const std::vector<std::string>& left, bool drop_exists, const std::string& log,
                  bool traced, const Baseline& base, const Files& files) {
    std::ostringstream bad;
    const char* message = request.message;
    if (std::memchr(message, '\0', KEMAIL_MESSAGE_SIZE) == nullptr) {
        bad << "message buffer not NUL-terminated; ";
        message = "";
    }
    const Target kind = fired ? classify(call, target, files) : Target::Other;
    const std::set<int> allowed = fired ? allowed_results(call, mode, kind) : std::set<int>{0};
    if (!allowed.count(result)) bad << "result " << result << " not in {" << join(allowed) << "}; ";

    const bool success = result >= 0;
    const std::string mail = compare_mail(accepted, base.expected, success);
    if (!mail.empty()) bad << mail << "; ";

    switch (result) {
        case KEMAIL_E_WORK_FILE:
        case KEMAIL_E_SOCKET:
        case KEMAIL_E_UNREACHABLE: {
            if (!all_digits(message)) {
                bad << "detail \"" << message << "\" is not an error number; ";
                break;
            }
            const int expected_errno = mode == FI_ENOSPC ? ENOSPC : injector().errno_of(call);
            const bool step_call = (result == KEMAIL_E_WORK_FILE && kind != Target::Socket) ||
                                   (result != KEMAIL_E_WORK_FILE && kind == Target::Socket);
            if (fired && mode != FI_CLOCK_FORWARD && step_call &&
                std::atoi(message) != expected_errno)
                bad << "detail " << message << ", the failed call's error was " << expected_errno
                    << "; ";
            break;
        }
        case KEMAIL_E_REFUSED:
        case KEMAIL_E_AUTH_REFUSED:
        case KEMAIL_E_NO_AUTH:
            // A reply line as the server sent it; after a lost RSET reply it
            // is an earlier one than the server's last (the replies are out
            // of step), so only its form is checked.
            if (message[0] < '2' || message[0] > '5' || std::strlen(message) < 5 ||
                std::strcmp(message + std::strlen(message) - 2, "\r\n") != 0)
                bad << "detail \"" << message << "\" is not a server reply; ";
            else if (!fired)
                bad << "refused (last reply \"" << last_reply << "\") without a fault; ";
            break;
        default:
            if (message[0] != '\0') bad << "detail \"" << message << "\" where none is due; ";
    }

    // Nothing lost, nothing failed: the mail log holds the same lines.
    if ((mode == FI_EINTR || mode == FI_SHORT || mode == FI_CLOCK_BACK) && log != base.log) {
        size_t at = 0;
        while (at < log.size() && at < base.log.size() && log[at] == base.log[at]) ++at;
        bad << "mail log differs from an undisturbed send's at byte " << at << ": \""
            << log.substr(at > 20 ? at - 20 : 0, 60) << "\" vs \""
            << base.log.substr(at > 20 ? at - 20 : 0, 60) << "\"; ";
    }

    if ((mode == FI_EINTR || mode == FI_SHORT || mode == FI_CLOCK_BACK) && !traced)
        bad << "the trace file lacks the send's records; ";

    const bool unlink_failed = fired && call == FI_UNLINK;
    for (const std::string& path : left) {
        if (unlink_failed && path == target) continue;  // it could not be deleted
        if (untouched_stale_file(path)) continue;
        bad << "left behind: " << path << "; ";
    }
    if (result < 0 && !drop_exists) bad << "kind-4 attachment deleted by a failed send; ";
    if (result >= 0 && drop_exists && !(unlink_failed && target == files.drop))
        bad << "kind-4 attachment kept after a successful send; ";
    if (fds_after != fds_before)
        bad << "descriptors " << fds_before << " before, " << fds_after << " after; ";
    return bad.str();
}

void write_outcome(int fd, const Outcome& o) {
    const char* p = reinterpret_cast<const char*>(&o);
    size_t left = sizeof o;
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

// The child's part: one send with the call failed, judged on the spot.
[[noreturn]] void injected_child(int out_fd, const Scenario& s, const Files& files,
                                 const Baseline& base, int call, long n, int mode) {
    alarm(60);  // the parent's bound is shorter; this one outlives a stuck parent
    Outcome o;
    kemail_test::write_file(files.drop, files.drop_bytes);
    clear_log_directories();
    plant_stale_work_files();
    Request request = make_request(s, files);
    std::memset(request.message, 'x', sizeof request.message);  // no NUL until written
    const size_t fds_before = open_descriptors();
    std::vector<std::string> accepted;
    std::string last_reply;
    {
        MailServer server;
        injector().reset();
        injector().arm(call, n, mode);
        o.result = request.send(server.port());
        injector().disarm();
        server.stop();
        accepted = server.accepted();
        last_reply = server.last_reply();
    }
    o.fired = injector().fired(o.target, sizeof o.target);
    const size_t fds_after = open_descriptors();
    const std::vector<std::string> left = leftovers();
    const bool drop_exists = access(files.drop.c_str(), F_OK) == 0;
    const std::string log = masked_mail_log();
    const bool traced = trace_closed();
    std::memcpy(o.message, request.message, sizeof o.message);
    const std::string verdict =
        judge(call, mode, request, o.result, o.target, o.fired != 0, accepted, last_reply,
              fds_before, fds_after, left, drop_exists, log, traced, base, files);
    std::snprintf(o.verdict, sizeof o.verdict, "%s", verdict.c_str());
    for (const std::string& path : left) ::unlink(path.c_str());
    write_outcome(out_fd, o);
    _exit(0);
}

// Runs one injection in a child bounded to 30 seconds.
Outcome run_injected(const Scenario& s, const Files& files, const Baseline& base, int call, long n,
                     int mode) {
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) std::abort();
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) std::abort();
    if (pid == 0) {
        ::close(pipe_fds[0]);
        injected_child(pipe_fds[1], s, files, base, call, n, mode);
    }
    ::close(pipe_fds[1]);
    Outcome o;
    std::string bytes;
    bool hung = false;
    const auto deadline_ms = 30000;
    int waited = 0;
    while (bytes.size() < sizeof o) {
        pollfd p{pipe_fds[0], POLLIN, 0};
        const int r = ::poll(&p, 1, 100);
        if (r == 0) {
            waited += 100;
            if (waited >= deadline_ms) {
                hung = true;
                break;
            }
            continue;
        }
        char buf[4096];
        const ssize_t got = ::read(pipe_fds[0], buf, sizeof buf);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        bytes.append(buf, static_cast<size_t>(got));
    }
    ::close(pipe_fds[0]);
    if (hung) ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (bytes.size() == sizeof o) {
        std::memcpy(&o, bytes.data(), sizeof o);
    } else {
        o.ended = hung ? 2 : 1;
        std::snprintf(o.verdict, sizeof o.verdict, "%s (status %d)",
                      hung ? "hung" : "crashed or ended early", status);
    }
    for (const std::string& path : leftovers()) ::unlink(path.c_str());  // after a killed child
    return o;
}

// ------------------------------------------------------------ the sweep

// The uninjected run, in a child like every injected one, so that what a
// process does once (the host-name lookup of the Message-Id) is counted and
// swept too: the parent never sends.
Baseline count_calls(const Scenario& s, const Files& files) {
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) std::abort();
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) std::abort();
    if (pid == 0) {
        ::close(pipe_fds[0]);
        alarm(60);
        kemail_test::write_file(files.drop, files.drop_bytes);
        clear_log_directories();
        plant_stale_work_files();
        Request request = make_request(s, files);
        MailServer server;
        injector().reset();
        const int result = request.send(server.port());
        server.stop();
        std::string out(reinterpret_cast<const char*>(&result), sizeof result);
        for (int c = 0; c < FI_CALL_COUNT; ++c) {
            const long count = injector().count(c);
            out.append(reinterpret_cast<const char*>(&count), sizeof count);
        }
        const std::string log = masked_mail_log();
        const size_t log_size = log.size();
        out.append(reinterpret_cast<const char*>(&log_size), sizeof log_size);
        out += log;
        for (const std::string& m : server.accepted()) {
            const size_t size = m.size();
            out.append(reinterpret_cast<const char*>(&size), sizeof size);
            out += m;
        }
        for (size_t done = 0; done < out.size();) {
            const ssize_t n = ::write(pipe_fds[1], out.data() + done, out.size() - done);
            if (n <= 0) _exit(1);
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    ::close(pipe_fds[1]);
    std::string in;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(pipe_fds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        in.append(buf, static_cast<size_t>(n));
    }
    ::close(pipe_fds[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    Baseline base;
    int result = -100;
    size_t at = 0;
    auto take = [&](void* dst, size_t size) {
        if (in.size() - at < size) return false;
        std::memcpy(dst, in.data() + at, size);
        at += size;
        return true;
    };
    EXPECT_TRUE(take(&result, sizeof result) && take(base.counts, sizeof base.counts))
        << "the uninjected run ended early (status " << status << ")";
    EXPECT_EQ(result, KEMAIL_OK);
    size_t size = 0;
    if (take(&size, sizeof size) && in.size() - at >= size) {
        base.log = in.substr(at, size);
        at += size;
    }
    std::vector<std::string> messages;
    while (take(&size, sizeof size) && in.size() - at >= size) {
        messages.push_back(in.substr(at, size));
        at += size;
    }
    base.expected = masked(messages);
    for (const std::string& path : leftovers()) ::unlink(path.c_str());
    return base;
}

std::vector<long> points(long count) {
    std::vector<long> all;
    if (count <= 0) return all;
    const char* sample_text = std::getenv("KEMAIL_SWEEP_SAMPLE");
    const long sample = sample_text ? std::max(2L, std::atol(sample_text)) : 0;
    if (sample == 0 || count <= sample) {
        for (long n = 1; n <= count; ++n) all.push_back(n);
        return all;
    }
    for (long i = 0; i < sample; ++i) all.push_back(1 + i * (count - 1) / (sample - 1));
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

struct SweepParam {
    const Scenario* scenario;
    int call;
};

class FailureSweep : public ::testing::TestWithParam<SweepParam> {
protected:
    static void SetUpTestSuite() {
        ASSERT_NE(injector().reset, nullptr) << "the fault injector is not preloaded";
        ASSERT_EQ(injector().reset(), 0) << "libkemail.so not found among the loaded objects";
        // The trace settings are read from a file, as in the field.
        kemail_test::write_file("/etc/opt/QRZNvolta/trc_conf",
                                "[ACERT]\nTRACESIZE=5\nTRACELEVEL=1\nTRACENUM=5\n");
        files_ = new Files;
        kemail_test::write_file(files_->keep, pattern_bytes(kWhole.big_attachment, 1));
        whole_ = new Baseline(count_calls(kWhole, *files_));
        files_split_ = new Files;
        kemail_test::write_file(files_split_->keep, pattern_bytes(kSplit.big_attachment, 3));
        split_ = new Baseline(count_calls(kSplit, *files_split_));
    }
    static void TearDownTestSuite() {
        delete whole_;
        delete split_;
        delete files_;
        delete files_split_;
    }
    static Files* files_;
    static Files* files_split_;
    static Baseline* whole_;
    static Baseline* split_;
};

Files* FailureSweep::files_ = nullptr;
Files* FailureSweep::files_split_ = nullptr;
Baseline* FailureSweep::whole_ = nullptr;
Baseline* FailureSweep::split_ = nullptr;

TEST(FailureSweepBaseline, TheComposedMailsAreTheExpectedShape) {
    ASSERT_NE(injector().reset, nullptr);
    kemail_test::write_file("/etc/opt/QRZNvolta/trc_conf",
                            "[ACERT]\nTRACESIZE=5\nTRACELEVEL=1\nTRACENUM=5\n");
    Files files;
    kemail_test::write_file(files.keep, pattern_bytes(kSplit.big_attachment, 3));
    const Baseline split = count_calls(kSplit, files);
    EXPECT_GE(split.expected.size(), 4u) << "a 30 KB attachment in 10 KB pieces";
    for (size_t i = 0; i < split.expected.size(); ++i) {
        const std::string marker = "number=" + std::to_string(i + 1) +
                                   "; total=" + std::to_string(split.expected.size()) + ";";
        EXPECT_NE(split.expected[i].find(marker), std::string::npos) << "piece " << i + 1;
    }
    for (int c : {FI_SEND, FI_RECV, FI_SELECT, FI_READ, FI_WRITE, FI_OPEN, FI_LSEEK, FI_STAT,
                  FI_UNLINK, FI_MMAP, FI_MALLOC, FI_SOCKET, FI_CONNECT, FI_CLOSE, FI_TIME})
        EXPECT_GT(split.counts[c], 0) << kCallNames[c] << " is never called";
}

// The old-file scan that precedes every send's trace file and mail log looks
// at each matching file (a stat) only when the listing shows that one may
// have to go: fewer regular files than kept are deleted from no position.
TEST(OldFileScan, FilesAreLookedAtOnlyWhenOneMayGo) {
    ASSERT_NE(injector().reset, nullptr);
    kemail_test::TempDir dir;
    for (int i = 1; i <= 4; ++i)
        kemail_test::write_file(dir.file("kesmtp" + std::to_string(i) + ".log"), "x");
    kemail_test::write_file(dir.file("other.log"), "y");
    ASSERT_EQ(::mkdir(dir.file("kesmtp-dir").c_str(), 0755), 0);

    ASSERT_EQ(injector().reset(), 0);
    EXPECT_EQ(DeleteOldFiles_DIR(dir.path().c_str(), "kesmtp", "log", 5, 1), 0);
    EXPECT_EQ(injector().count(FI_STAT), 1) << "the directory only";
    EXPECT_EQ(injector().count(FI_UNLINK), 0);

    ASSERT_EQ(injector().reset(), 0);
    EXPECT_EQ(DeleteOldFiles_DIR(dir.path().c_str(), "kesmtp", "log", 4, 1), 0);
    EXPECT_EQ(injector().count(FI_STAT), 1 + 5) << "the directory and each matching entry";
    EXPECT_EQ(injector().count(FI_UNLINK), 1);
    int left = 0;
    for (int i = 1; i <= 4; ++i)
        left += ::access(dir.file("kesmtp" + std::to_string(i) + ".log").c_str(), F_OK) == 0;
    EXPECT_EQ(left, 3);
    EXPECT_EQ(::access(dir.file("other.log").c_str(), F_OK), 0);
    EXPECT_EQ(::access(dir.file("kesmtp-dir").c_str(), F_OK), 0);
}

TEST_P(FailureSweep, EveryFailedCallEndsAsDesigned) {
    const SweepParam param = GetParam();
    const Scenario& s = *param.scenario;
    const Files& files = s.split ? *files_split_ : *files_;
    const Baseline& base = s.split ? *split_ : *whole_;
    const long count = base.counts[param.call];
    std::map<std::string, int> tally;
    int runs = 0;
    for (int mode : modes_of(param.call)) {
        for (long n : points(count)) {
            const Outcome o = run_injected(s, files, base, param.call, n, mode);
            ++runs;
            const std::string key = std::string(kModeNames[mode]) + " -> " +
                                    (o.ended   ? std::string(o.ended == 2 ? "hang" : "crash")
                                     : o.fired ? std::to_string(o.result)
                                               : "not reached");
            ++tally[key];
            if (std::getenv("KEMAIL_SWEEP_VERBOSE"))
                std::printf("[ inject   ] %s %s #%ld %s on %s: %d \"%s\"\n", s.name,
                            kCallNames[param.call], n, kModeNames[mode], o.target, o.result,
                            std::string(o.message, strnlen(o.message, sizeof o.message)).c_str());
            EXPECT_TRUE(o.verdict[0] == '\0')
                << s.name << ": " << kCallNames[param.call] << " #" << n << " of " << count << " ("
                << kModeNames[mode] << ") on " << o.target << ": result " << o.result
                << ", message \"" << std::string(o.message, strnlen(o.message, sizeof o.message))
                << "\": " << o.verdict;
        }
    }
    std::printf("[ sweep    ] %s %s: %ld calls, %d injections:", s.name, kCallNames[param.call],
                count, runs);
    for (const auto& [key, number] : tally) std::printf(" [%s] %d", key.c_str(), number);
    std::printf("\n");
}

std::vector<SweepParam> all_params() {
    std::vector<SweepParam> params;
    for (const Scenario* s : {&kWhole, &kSplit})
        for (int c = 0; c < FI_CALL_COUNT; ++c) params.push_back({s, c});
    return params;
}

INSTANTIATE_TEST_SUITE_P(Calls, FailureSweep, ::testing::ValuesIn(all_params()),
                         [](const ::testing::TestParamInfo<SweepParam>& info) {
                             return std::string(info.param.scenario->name) + "_" +
                                    kCallNames[info.param.call];
                         });

}  // namespace
}  // namespace reliability

// Runs the program again with the injector preloaded when it is not.
int main(int argc, char** argv) {
    if (dlsym(RTLD_DEFAULT, "fi_reset") == nullptr) {
        const char* preload = std::getenv("LD_PRELOAD");
        std::string value = KEMAIL_FAULT_INJECT_LIB;
        if (preload && *preload) value += std::string(":") + preload;
        setenv("LD_PRELOAD", value.c_str(), 1);
        execv("/proc/self/exe", argv);
        std::perror("execv");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
