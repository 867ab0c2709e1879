// Who can read what a send leaves on disk. The trace (AUTH strings, message
// data), the mail log and the work files (whole messages) are created 0644;
// the directories made by the install component system-dirs (0700) are what
// keeps other local users out. This program runs in the private test root
// after that component has been installed into it, and shows, as user
// nobody, that none of those files can be read: neither after a send with
// AUTH PLAIN nor the work file left by a send that was killed. A control
// shows the same reads succeed once a directory is opened up again, so the
// checks can fail. A last test plants symbolic links at the names the next
// send will use and shows that the files they point to are left alone.
#include "send/send_fixture.h"
#include "support/bounded_child.h"

#include <chrono>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

namespace send_test {
namespace {

using kemail_test::TempDir;

const char* const kPrivateDirs[] = {"/etc/opt/QRZNvolta", "/var/opt/QRZNvolta/tmp",
                                    "/var/opt/QRZNvolta/tmp2", "/var/opt/QRZNvolta/log"};

constexpr char kPassword[] = "Zx9-secret-pw";

// The result of open(path, O_RDONLY) made by user nobody (in a child
// process): 0 when it opened, else the errno.
int open_as_nobody(const std::string& path) {
    const passwd* nobody = getpwnam("nobody");
    if (!nobody) return -1;
    const uid_t uid = nobody->pw_uid;
    const gid_t gid = nobody->pw_gid;
    const auto result = kemail_test::run_bounded(10000, [&] {
        if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 ||
            setresuid(uid, uid, uid) != 0)
            return -2;
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            close(fd);
            return 0;
        }
        return errno;
    });
    return result.finished ? result.value : -3;
}

mode_t mode_of(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

std::string trace_name() {
    char name[KEMAIL_TRACE_NAME_SIZE] = {};
    MakeTraceFileName(name, 0, "acert", 1);
    return name;
}

std::string log_name(pid_t pid) {
    return kemail_test::var_dir() + "/log/kesmtp" + std::to_string(pid) + ".log";
}

void write_trace_config() {
    kemail_test::write_file(kemail_test::etc_dir() + "/trc_conf",
                            "[ACERT]\nTRACESIZE=64\nTRACELEVEL=2\nTRACENUM=5\n[LOG]\nLOGNUM=3\n");
}

Script auth_plain_script() {
    Script s;
    greet(s, "250-kemail-test\r\n250 AUTH PLAIN\r\n")
        .read_line()
        .send("235 2.7.0 Authentication successful\r\n");
    return s;
}

class PrivateDirs : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "these checks need root (to become nobody)";
        ASSERT_NE(getpwnam("nobody"), nullptr);
        cert_.ulMechanisms = KEMAIL_MECH_PLAIN;
        std::memcpy(cert_.szUser, "agent", 6);
        std::memcpy(cert_.szPassword, kPassword, sizeof kPassword);
        write_trace_config();
    }
    AuthCertInfo cert_{};
    MailAuthInfo auth_{KEMAIL_AUTH_SMTP, 0, &cert_};
};

TEST_F(PrivateDirs, InstallComponentMadeEveryDirectoryPrivateToTheAgent) {
    for (const char* dir : kPrivateDirs) {
        SCOPED_TRACE(dir);
        struct stat st {};
        ASSERT_EQ(stat(dir, &st), 0);
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0700u);
        EXPECT_EQ(st.st_uid, 0u);  // KEMAIL_AGENT_USER left at root
    }
}

TEST_F(PrivateDirs, NobodyCanReadNeitherTheTraceNorTheMailLogOfAnAuthPlainSend) {
    Script s = auth_plain_script();
    transaction(s);
    quit(s);
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.auth = &auth_;
    mail.text = std::string("Confidential report\n");
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    ASSERT_TRUE(server.wait_done());

    // The secrets are there: the AUTH PLAIN string in the trace, the
    // dialogue in the mail log; the files keep their mode 0644.
    char plain[512] = {};
    ASSERT_EQ(Auth_GetCertPlainString("agent", kPassword, plain) > 0 || plain[0] != '\0', true);
    const std::string trace = trace_name();
    const std::string log = log_name(getpid());
    EXPECT_NE(kemail_test::read_file(trace).find(plain), std::string::npos);
    EXPECT_NE(kemail_test::read_file(log).find("MAIL FROM:"), std::string::npos);
    EXPECT_EQ(mode_of(trace), 0644u);
    EXPECT_EQ(mode_of(log), 0644u);

    EXPECT_EQ(open_as_nobody(trace), EACCES);
    EXPECT_EQ(open_as_nobody(log), EACCES);
    EXPECT_EQ(open_as_nobody(kemail_test::var_dir() + "/tmp2"), EACCES);
    EXPECT_EQ(open_as_nobody(kemail_test::var_dir() + "/log"), EACCES);

    // Control: with the directory opened up, the 0644 trace is readable.
    ASSERT_EQ(chmod((kemail_test::var_dir() + "/tmp2").c_str(), 0755), 0);
    EXPECT_EQ(open_as_nobody(trace), 0);
    ASSERT_EQ(chmod((kemail_test::var_dir() + "/tmp2").c_str(), 0700), 0);
}

TEST_F(PrivateDirs, NobodyCannotReadTheWorkFileOfASendKilledInData) {
    Script s = auth_plain_script();
    s.read_line()
        .send("250 2.1.0 Ok\r\n")
        .read_line()
        .send("250 2.1.5 Ok\r\n")
        .read_line()
        .send("354 End data with <CR><LF>.<CR><LF>\r\n")
        .read_until("\r\n.\r\n")
        .sleep_ms(30000);  // no answer: the send waits in the end of data
    ScriptServer server(std::move(s));
    const std::vector<std::string> before = files_in(work_dir());

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Mail mail(server.port());
        mail.auth = &auth_;
        mail.text = std::string("Confidential report\n");
        mail.send();
        _exit(0);
    }
    // Once the whole message has arrived, the send is killed.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (server.received().find("\r\n.\r\n") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const bool data_sent = server.received().find("\r\n.\r\n") != std::string::npos;
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(data_sent);
    ASSERT_TRUE(WIFSIGNALED(status));

    std::vector<std::string> left;
    for (const std::string& name : files_in(work_dir())) {
        if (std::find(before.begin(), before.end(), name) == before.end()) left.push_back(name);
    }
    ASSERT_EQ(left.size(), 1u) << "the killed send should leave its message file";
    const std::string work_file = work_dir() + "/" + left[0];
    EXPECT_EQ(left[0].rfind("EST" + std::to_string(child) + "-", 0), 0u);
    EXPECT_NE(kemail_test::read_file(work_file).find("Confidential report"), std::string::npos);
    EXPECT_EQ(mode_of(work_file), 0644u);

    EXPECT_EQ(open_as_nobody(work_file), EACCES);
    EXPECT_EQ(open_as_nobody(work_dir()), EACCES);
    EXPECT_EQ(open_as_nobody(log_name(child)), EACCES);
    ASSERT_EQ(chmod(work_dir().c_str(), 0755), 0);
    EXPECT_EQ(open_as_nobody(work_file), 0);  // control
    ASSERT_EQ(chmod(work_dir().c_str(), 0700), 0);
    unlink(work_file.c_str());
}

// --- symbolic links planted at the names of the next send --------------------

class PlantedLinks : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(geteuid(), 0u); }

    // A victim file with known content and a link to it at `name`.
    void plant(const std::string& name) {
        const std::string victim = dir_.file("victim" + std::to_string(victims_.size()));
        kemail_test::write_file(victim, kVictim);
        unlink(name.c_str());
        ASSERT_EQ(symlink(victim.c_str(), name.c_str()), 0) << name;
        victims_.push_back(victim);
    }

    void expect_victims_untouched() {
        for (const std::string& victim : victims_) {
            SCOPED_TRACE(victim);
            const std::string content = kemail_test::read_file(victim);
            EXPECT_TRUE(content == kVictim)
                << "the victim now holds " << content.size() << " bytes";
            EXPECT_EQ(mode_of(victim), 0644u);
        }
    }

    static constexpr char kVictim[] = "the victim's own content\n";
    TempDir dir_;
    std::vector<std::string> victims_;
};

std::string work_name(const char* prefix) {
    return work_dir() + "/" + prefix + std::to_string(getpid()) + "-" +
           std::to_string(static_cast<int>(pthread_self()));
}

TEST_F(PlantedLinks, TraceMailLogAndWorkFileNamesNeverWriteThroughALink) {
    kemail_test::write_file(kemail_test::etc_dir() + "/trc_conf",
                            "[ACERT]\nTRACESIZE=64\nTRACELEVEL=1\nTRACENUM=5\n");
    plant(trace_name());
    plant(log_name(getpid()));
    plant(work_name("EMT"));
    plant(work_name("EST"));

    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    ASSERT_TRUE(server.wait_done());
    expect_victims_untouched();
    unlink(trace_name().c_str());
    unlink(log_name(getpid()).c_str());
}

}  // namespace
}  // namespace send_test
