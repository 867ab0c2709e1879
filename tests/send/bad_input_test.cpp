// What a send does with bad input from its caller: strings that run to the
// end of readable memory without a NUL just past their limit, record fields
// filled to their last byte, attachments that are no regular file or that
// change while the mail is composed, a text with NUL bytes and subjects of
// lone Shift_JIS lead bytes. Each gives its designed result, within a bound,
// and never reads a byte past the limit (the guard page would stop the test).
#include "send_fixture.h"
#include "support/bounded_child.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace send_test {
namespace {

using kemail_test::RefusedPort;
using kemail_test::run_bounded;
using kemail_test::TempDir;

// Bytes placed so that they end exactly where readable memory ends: the
// page after them is mapped without any access, so a read of one byte more
// stops the test program.
class GuardedBytes {
public:
    explicit GuardedBytes(const std::string& bytes) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        pages_ = (bytes.size() + page - 1) / page + 1;
        size_ = pages_ * page;
        void* map =
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED) std::abort();
        base_ = static_cast<char*>(map);
        if (mprotect(base_ + size_ - page, page, PROT_NONE) != 0) std::abort();
        data_ = base_ + size_ - page - bytes.size();
        std::memcpy(data_, bytes.data(), bytes.size());
    }
    ~GuardedBytes() { munmap(base_, size_); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    char* data() const { return data_; }

private:
    char* base_ = nullptr;
    char* data_ = nullptr;
    size_t pages_ = 0;
    size_t size_ = 0;
};

// A record of type T whose last byte is the last readable byte, every byte
// of it (padding included) first set to `fill`.
template <typename T>
T* guarded_record(GuardedBytes** holder, char fill) {
    *holder = new GuardedBytes(std::string(sizeof(T), fill));
    return reinterpret_cast<T*>((*holder)->data());
}

class BadInput : public SendTest {};

// --- strings without a NUL just past their limit ---------------------------

TEST_F(BadInput, SubjectOfSixtyFiveBytesWithoutNulIsRefused) {
    GuardedBytes subject(std::string(KEMAIL_MAX_SUBJECT + 1, 'S'));
    RefusedPort port;
    Mail mail(port.port());
    mail.prepare();
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 1, kFrom, subject.data(),
                             "127.0.0.1", 0, &*mail.option, &*mail.timeout, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);
    EXPECT_STREQ(mail.message, "");
}

TEST_F(BadInput, SubjectOfSixtyFourBytesEndingAtTheGuardIsSent) {
    GuardedBytes subject(std::string(KEMAIL_MAX_SUBJECT, 'S') + '\0');
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.prepare();
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 1, kFrom, subject.data(),
                             "127.0.0.1", 0, &*mail.option, &*mail.timeout, nullptr, mail.message),
              KEMAIL_OK);
    ASSERT_TRUE(server.wait_done());
    EXPECT_NE(server.received().find("Subject: " + std::string(KEMAIL_MAX_SUBJECT, 'S') + "\r\n"),
              std::string::npos);
}

TEST_F(BadInput, SenderPastItsLimitWithoutNulIsRefused) {
    GuardedBytes from(std::string(KEMAIL_MAX_ADDRESS + 1, 'f'));
    RefusedPort port;
    Mail mail(port.port());
    mail.prepare();
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 1, from.data(), "s",
                             "127.0.0.1", 0, &*mail.option, &*mail.timeout, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);
}

TEST_F(BadInput, ServerPastItsLimitWithoutNulIsRefused) {
    GuardedBytes server(std::string(KEMAIL_MAX_HOST + 1, 'h'));
    Mail mail;
    mail.prepare();
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 1, kFrom, "s", server.data(),
                             0, nullptr, &*mail.timeout, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);
}

TEST_F(BadInput, RecipientListPastItsLimitWithoutNulIsARecipientError) {
    GuardedBytes to(std::string(KEMAIL_MAX_ADDRESS + 1, 't'));
    RefusedPort port;
    Mail mail(port.port());
    mail.prepare();
    MailAddressInfo address{1, 0, to.data()};
    EXPECT_EQ(ZvKe_SendEMail(&address, 1, mail.contents.data(), 1, kFrom, "s", "127.0.0.1", 0,
                             &*mail.option, &*mail.timeout, nullptr, mail.message),
              KEMAIL_E_RECIPIENT);
}

TEST_F(BadInput, TextPastItsLimitWithoutNulIsRefused) {
    GuardedBytes text(std::string(KEMAIL_MAX_TEXT + 1, 'x'));
    RefusedPort port;
    Mail mail(port.port());
    mail.prepare();
    MailContentInfo content{KEMAIL_CONTENT_TEXT, 0, text.data()};
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, &content, 1, kFrom, "s", "127.0.0.1", 0,
                             &*mail.option, &*mail.timeout, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);
}

TEST_F(BadInput, TextOfTheLimitEndingAtTheGuardIsSent) {
    GuardedBytes text(std::string(KEMAIL_MAX_TEXT, 'x') + '\0');
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.prepare();
    MailContentInfo content{KEMAIL_CONTENT_TEXT, 0, text.data()};
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, &content, 1, kFrom, "s", "127.0.0.1", 0,
                             &*mail.option, &*mail.timeout, nullptr, mail.message),
              KEMAIL_OK);
    ASSERT_TRUE(server.wait_done());
    // A body line goes out in lines of at most 1024 bytes.
    std::string lines;
    for (size_t left = KEMAIL_MAX_TEXT; left > 0; left -= std::min<size_t>(left, 1024)) {
        lines += std::string(std::min<size_t>(left, 1024), 'x') + "\r\n";
    }
    EXPECT_NE(server.received().find("\r\n\r\n" + lines + "\r\n"), std::string::npos);
}

TEST_F(BadInput, AttachmentPathPastItsLimitWithoutNulIsRefused) {
    GuardedBytes path(std::string(KEMAIL_MAX_PATH + 1, 'p'));
    RefusedPort port;
    Mail mail(port.port());
    mail.prepare();
    mail.contents.push_back({KEMAIL_CONTENT_ATTACHMENT, 0, path.data()});
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 2, kFrom, "s", "127.0.0.1", 0,
                             &*mail.option, &*mail.timeout, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);
}

// --- records whose character fields are filled to the last byte ------------

int send_with_auth(MailAuthInfo* auth, uint16_t port) {
    Mail mail(port);
    mail.auth = auth;
    return mail.send();
}

TEST_F(BadInput, AuthUserFilledToTheLastByteIsRefused) {
    GuardedBytes* holder = nullptr;
    AuthCertInfo* cert = guarded_record<AuthCertInfo>(&holder, 'u');
    std::unique_ptr<GuardedBytes> owner(holder);
    cert->ulMechanisms = KEMAIL_MECH_PLAIN;
    RefusedPort port;
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, cert};
    EXPECT_EQ(send_with_auth(&auth, port.port()), KEMAIL_E_ARGUMENT);
}

TEST_F(BadInput, AuthPasswordFilledToTheLastByteIsRefused) {
    GuardedBytes* holder = nullptr;
    AuthCertInfo* cert = guarded_record<AuthCertInfo>(&holder, 'p');
    std::unique_ptr<GuardedBytes> owner(holder);
    cert->ulMechanisms = KEMAIL_MECH_PLAIN;
    std::memcpy(cert->szUser, "user", 5);
    RefusedPort port;
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, cert};
    EXPECT_EQ(send_with_auth(&auth, port.port()), KEMAIL_E_ARGUMENT);
}

// A POP-before-SMTP record with every byte set, then the named fields fixed.
PopBeforeSmtpInfo* pop_record(std::unique_ptr<GuardedBytes>* owner, bool user, bool password,
                              bool host) {
    GuardedBytes* holder = nullptr;
    PopBeforeSmtpInfo* pop = guarded_record<PopBeforeSmtpInfo>(&holder, 'z');
    owner->reset(holder);
    pop->ulPort = 1;
    pop->lWait = 0;
    if (user) std::memcpy(pop->szUser, "user", 5);
    if (password) std::memcpy(pop->szPassword, "secret", 7);
    if (host) std::memcpy(pop->szHost, "127.0.0.1", 10);
    return pop;
}

TEST_F(BadInput, PopUserFilledToTheLastByteIsRefused) {
    std::unique_ptr<GuardedBytes> owner;
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, pop_record(&owner, false, true, true)};
    RefusedPort port;
    EXPECT_EQ(send_with_auth(&auth, port.port()), KEMAIL_E_ARGUMENT);
}

TEST_F(BadInput, PopPasswordFilledToTheLastByteIsRefused) {
    std::unique_ptr<GuardedBytes> owner;
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, pop_record(&owner, true, false, true)};
    RefusedPort port;
    EXPECT_EQ(send_with_auth(&auth, port.port()), KEMAIL_E_ARGUMENT);
}

TEST_F(BadInput, PopHostFilledToTheLastByteIsRefused) {
    std::unique_ptr<GuardedBytes> owner;
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, pop_record(&owner, true, true, false)};
    RefusedPort port;
    EXPECT_EQ(send_with_auth(&auth, port.port()), KEMAIL_E_ARGUMENT);
}

// --- attachments that are no regular file -----------------------------------

// Sends with one attachment in a child process, bounded (20 s unless told); the server
// port refuses, so a send that got past composition would end with -10.
kemail_test::ChildResult send_attachment_bounded(const std::string& path, char* message,
                                                 int bound_ms = 20000) {
    RefusedPort port;
    int fds[2];
    if (pipe(fds) != 0) return {};
    const auto result = run_bounded(bound_ms, [&] {
        Mail mail(port.port());
        mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT, path}};
        const int rc = mail.send();
        const ssize_t n = write(fds[1], mail.message, KEMAIL_MESSAGE_SIZE);
        return n == KEMAIL_MESSAGE_SIZE ? rc : 9999;
    });
    close(fds[1]);
    if (result.finished && read(fds[0], message, KEMAIL_MESSAGE_SIZE) != KEMAIL_MESSAGE_SIZE) {
        message[0] = '\0';
    }
    close(fds[0]);
    return result;
}

TEST_F(BadInput, DirectoryAsAttachmentIsAWorkFileErrorWithEisdir) {
    TempDir dir;
    char message[KEMAIL_MESSAGE_SIZE] = {};
    const auto result = send_attachment_bounded(dir.path(), message);
    ASSERT_TRUE(result.finished) << "the send did not end within 20 s";
    EXPECT_EQ(result.value, KEMAIL_E_WORK_FILE);
    EXPECT_STREQ(message, std::to_string(EISDIR).c_str());
}

TEST_F(BadInput, FifoWithoutWriterEndsAfterTheDataBlockTimeOut) {
    TempDir dir;
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    char message[KEMAIL_MESSAGE_SIZE] = {};
    const auto start = std::chrono::steady_clock::now();
    // The mail's time-outs are all 60 s, the least allowed.
    const auto result = send_attachment_bounded(fifo, message, 90000);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
            .count();
    if (!result.finished) {
        // Let a blocked open go, so that nothing stays behind.
        const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) close(fd);
    }
    ASSERT_TRUE(result.finished) << "the send did not end within 90 s";
    EXPECT_EQ(result.value, KEMAIL_E_WORK_FILE);
    EXPECT_STREQ(message, std::to_string(ETIMEDOUT).c_str());
    EXPECT_GE(seconds, 59);
}

TEST_F(BadInput, EndlessDeviceAsAttachmentIsRefusedInsteadOfRead) {
    char message[KEMAIL_MESSAGE_SIZE] = {};
    const auto result = send_attachment_bounded("/dev/zero", message);
    ASSERT_TRUE(result.finished) << "the send did not end within 20 s";
    EXPECT_EQ(result.value, KEMAIL_E_WORK_FILE);
    EXPECT_STREQ(message, std::to_string(EINVAL).c_str());
}

// --- attachments that change while the mail is composed ---------------------

// The base64 lines of the (one, last) attachment part in what the server
// received; false when the part is not complete and well formed. Every read
// of the file is encoded on its own, so a file that changes under the reads
// may give a short line (with its own padding) anywhere in the part.
bool attachment_lines_ok(const std::string& received, size_t* decoded) {
    const size_t header = received.find("Content-Transfer-Encoding: base64\r\n");
    if (header == std::string::npos) return false;
    size_t at = received.find("\r\n\r\n", header);
    if (at == std::string::npos) return false;
    at += 4;
    *decoded = 0;
    for (;;) {
        const size_t end = received.find("\r\n", at);
        if (end == std::string::npos) return false;
        const std::string line = received.substr(at, end - at);
        at = end + 2;
        if (line.compare(0, 2, "--") == 0) {
            // The closing boundary, then the end of the data.
            return line.size() > 4 && line.compare(line.size() - 2, 2, "--") == 0 &&
                   received.compare(at, 5, "\r\n.\r\n") == 0;
        }
        if (line.empty() || line.size() > 68 || line.size() % 4 != 0) return false;
        const size_t padding = line.size() - line.find_last_not_of('=') - 1;
        static const char kAlphabet[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        if (padding > 2 ||
            line.substr(0, line.size() - padding).find_first_not_of(kAlphabet) != std::string::npos)
            return false;
        *decoded += line.size() / 4 * 3 - padding;
    }
}

TEST_F(BadInput, AttachmentThatGrowsWhileComposedIsSentWhole) {
    TempDir dir;
    const std::string path = dir.file("growing.bin");
    const std::string block(64 * 1024, 'g');
    kemail_test::write_file(path, std::string(2 * 1024 * 1024, 'a'));
    std::atomic<bool> done{false};
    std::thread writer([&] {
        const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        for (int i = 0; fd >= 0 && i < 64 && !done.load(); ++i) {
            if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) break;
        }
        if (fd >= 0) close(fd);
    });
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT, path}};
    const int rc = mail.send();
    done = true;
    writer.join();
    EXPECT_EQ(rc, KEMAIL_OK);
    ASSERT_TRUE(server.wait_done());
    size_t decoded = 0;
    EXPECT_TRUE(attachment_lines_ok(server.received(), &decoded));
    EXPECT_GE(decoded, size_t{2 * 1024 * 1024});
    EXPECT_LE(decoded, size_t{2 * 1024 * 1024 + 64 * 64 * 1024});
}

TEST_F(BadInput, AttachmentThatShrinksWhileComposedIsSentAsFarAsItLasts) {
    TempDir dir;
    const std::string path = dir.file("shrinking.bin");
    constexpr size_t kSize = 4 * 1024 * 1024;
    kemail_test::write_file(path, std::string(kSize, 'b'));
    std::atomic<bool> done{false};
    std::thread cutter([&] {
        for (off_t size = kSize; size > 0 && !done.load(); size -= 256 * 1024) {
            if (truncate(path.c_str(), size - 256 * 1024) != 0) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT, path}};
    const int rc = mail.send();
    done = true;
    cutter.join();
    EXPECT_EQ(rc, KEMAIL_OK);
    ASSERT_TRUE(server.wait_done());
    size_t decoded = 0;
    EXPECT_TRUE(attachment_lines_ok(server.received(), &decoded));
    EXPECT_LE(decoded, kSize);
}

// --- texts and subjects -------------------------------------------------------

TEST_F(BadInput, TextEndsAtItsFirstNulByte) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.text = std::string("first part\0hidden part\n", 23);
    EXPECT_EQ(mail.send(), KEMAIL_OK);
    ASSERT_TRUE(server.wait_done());
    EXPECT_NE(server.received().find("\r\n\r\nfirst part\r\n"), std::string::npos);
    EXPECT_EQ(server.received().find("hidden"), std::string::npos);
}

TEST_F(BadInput, SubjectsOfLoneShiftJisLeadBytesAreSent) {
    const std::string subjects[] = {
        "\x81",                                             // a lead byte and the end
        "abc\x9f",                                          // after ASCII
        "\xe0 \xef!",                                       // each followed by an ASCII byte
        "\x81\x7f\x82\x3f",                                 // invalid trail bytes
        std::string(KEMAIL_MAX_SUBJECT - 1, 'a') + "\xef",  // the last byte of the limit
    };
    for (const std::string& subject : subjects) {
        SCOPED_TRACE(testing::PrintToString(subject));
        ScriptServer server(whole_mail_script());
        Mail mail(server.port());
        mail.subject = subject;
        EXPECT_EQ(mail.send(), KEMAIL_OK);
        ASSERT_TRUE(server.wait_done());
        EXPECT_FALSE(server.failed()) << server.error();
        const std::string received = server.received();
        const size_t at = received.find("\r\nSubject: ");
        ASSERT_NE(at, std::string::npos);
        // The header block still ends where it should: the line after the
        // subject's is a header line or the empty line.
        EXPECT_NE(received.find("\r\n\r\nHello\r\n", at), std::string::npos);
    }
}

}  // namespace
}  // namespace send_test
