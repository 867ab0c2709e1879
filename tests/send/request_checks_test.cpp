// The argument checks of a send, each at its boundaries. A request that passes
// every check carries an attachment that does not exist, so it stops at the
// size estimate with -8 before any connection: -8 means "accepted".
#include "send_fixture.h"

#include <cstring>

namespace send_test {
namespace {

constexpr char kMissingAttachment[] = "/nonexistent-dir/probe.bin";

// A request that passes every check and then fails at the size estimate.
Mail probe() {
    Mail mail(25);
    mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, kMissingAttachment});
    return mail;
}

class RequestChecks : public SendTest {};

TEST_F(RequestChecks, ProbeIsAcceptedAndStopsAtTheSizeEstimate) {
    Mail mail = probe();
    EXPECT_EQ(mail.send(), KEMAIL_E_ATTACHMENT);
    EXPECT_STREQ(mail.message, "");
}

TEST_F(RequestChecks, EveryNullArgumentIsRefused) {
    for (int which = 0; which < 7; ++which) {
        Mail mail = probe();
        mail.prepare();
        char* message = which == 5 ? nullptr : mail.message;
        const int result =
            which == 6 ? ZvKe_SendEMailPartial_parts(0, &mail.address, 1, mail.contents.data(), 2,
                                                     mail.from.c_str(), mail.subject.c_str(),
                                                     mail.server.c_str(), 0, nullptr, nullptr,
                                                     nullptr, message, nullptr)
                       : ZvKe_SendEMail(which == 0 ? nullptr : &mail.address, 1,
                                        which == 1 ? nullptr : mail.contents.data(), 2,
                                        which == 2 ? nullptr : mail.from.c_str(),
                                        which == 3 ? nullptr : mail.subject.c_str(),
                                        which == 4 ? nullptr : mail.server.c_str(), 0, nullptr,
                                        nullptr, nullptr, message);
        EXPECT_EQ(result, KEMAIL_E_ARGUMENT) << "null argument " << which;
    }
}

TEST_F(RequestChecks, MessageBufferIsEmptiedOnAnArgumentError) {
    Mail mail = probe();
    mail.split = 2;
    EXPECT_EQ(mail.send(), KEMAIL_E_ARGUMENT);
    EXPECT_STREQ(mail.message, "");
}

TEST_F(RequestChecks, RecipientRecord) {
    Mail none = probe();
    none.address_count = 0;
    EXPECT_EQ(none.send(), KEMAIL_E_RECIPIENT);

    Mail two = probe();  // only the first entry is read
    two.address_count = 2;
    EXPECT_EQ(two.send(), KEMAIL_E_ATTACHMENT);

    Mail wrong_kind = probe();
    wrong_kind.address_kind = 2;
    EXPECT_EQ(wrong_kind.send(), KEMAIL_E_RECIPIENT);

    Mail null_list = probe();
    null_list.prepare();
    null_list.address.pszAddress = nullptr;
    EXPECT_EQ(
        ZvKe_SendEMail(&null_list.address, 1, null_list.contents.data(), 2, null_list.from.c_str(),
                       "s", "127.0.0.1", 0, nullptr, nullptr, nullptr, null_list.message),
        KEMAIL_E_RECIPIENT);

    Mail empty = probe();
    empty.to = "";
    EXPECT_EQ(empty.send(), KEMAIL_E_RECIPIENT);

    Mail longest = probe();
    longest.to = std::string(256, 'r');
    EXPECT_EQ(longest.send(), KEMAIL_E_ATTACHMENT);

    Mail too_long = probe();
    too_long.to = std::string(257, 'r');
    EXPECT_EQ(too_long.send(), KEMAIL_E_RECIPIENT);
}

TEST_F(RequestChecks, SenderAndServerLengths) {
    for (auto [length, expected] :
         {std::pair{0, KEMAIL_E_ARGUMENT}, {256, KEMAIL_E_ATTACHMENT}, {257, KEMAIL_E_ARGUMENT}}) {
        Mail sender = probe();
        sender.from = std::string(static_cast<size_t>(length), 's');
        EXPECT_EQ(sender.send(), expected) << "sender of " << length;
        Mail server = probe();
        server.server = std::string(static_cast<size_t>(length), 'h');
        EXPECT_EQ(server.send(), expected) << "server of " << length;
    }
}

TEST_F(RequestChecks, ContentRecords) {
    Mail mail = probe();
    mail.prepare();
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 0, kFrom, "s", "127.0.0.1", 0,
                             nullptr, nullptr, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);

    mail.contents[0].ulKind = KEMAIL_CONTENT_ATTACHMENT;
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 2, kFrom, "s", "127.0.0.1", 0,
                             nullptr, nullptr, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);

    mail.prepare();
    mail.contents[1].ulKind = 5;
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 2, kFrom, "s", "127.0.0.1", 0,
                             nullptr, nullptr, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);

    mail.prepare();
    mail.contents[1].pszData = nullptr;
    EXPECT_EQ(ZvKe_SendEMail(&mail.address, 1, mail.contents.data(), 2, kFrom, "s", "127.0.0.1", 0,
                             nullptr, nullptr, nullptr, mail.message),
              KEMAIL_E_ARGUMENT);

    for (auto [length, expected] : {std::pair{0, KEMAIL_E_ARGUMENT},
                                    {1024, KEMAIL_E_ATTACHMENT},
                                    {1025, KEMAIL_E_ARGUMENT}}) {
        Mail path = probe();
        path.attachments[0].second = std::string(static_cast<size_t>(length), 'p');
        if (length > 0) path.attachments[0].second[0] = '/';
        EXPECT_EQ(path.send(), expected) << "path of " << length;
    }

    Mail kind4 = probe();
    kind4.attachments[0].first = KEMAIL_CONTENT_ATTACHMENT_DELETE;
    EXPECT_EQ(kind4.send(), KEMAIL_E_ATTACHMENT);
}

TEST_F(RequestChecks, SplitFlagIsZeroOrOne) {
    for (auto [split, expected] :
         {std::pair{0u, KEMAIL_E_ATTACHMENT}, {1u, KEMAIL_E_ATTACHMENT}, {2u, KEMAIL_E_ARGUMENT}}) {
        Mail mail = probe();
        mail.split = split;
        EXPECT_EQ(mail.send(), expected) << "split " << split;
    }
}

TEST_F(RequestChecks, PartSizeBoundaries) {
    for (auto [size, expected] : {std::pair{9, KEMAIL_E_ARGUMENT},
                                  {10, KEMAIL_E_ATTACHMENT},
                                  {100, KEMAIL_E_ATTACHMENT},
                                  {101, KEMAIL_E_ARGUMENT}}) {
        Mail mail = probe();
        mail.option = SendOptionInfo{size, 25};
        EXPECT_EQ(mail.send(), expected) << "part size " << size;
    }
    Mail absent = probe();
    absent.option.reset();
    EXPECT_EQ(absent.send(), KEMAIL_E_ATTACHMENT);
}

TEST_F(RequestChecks, TimeOutBoundariesInEverySlot) {
    for (int slot = 0; slot < 6; ++slot) {
        for (auto [value, expected] : {std::pair{59, KEMAIL_E_ARGUMENT},
                                       {60, KEMAIL_E_ATTACHMENT},
                                       {3600, KEMAIL_E_ATTACHMENT},
                                       {3601, KEMAIL_E_ARGUMENT}}) {
            Mail mail = probe();
            int32_t* slots = &mail.timeout->lConnect;
            slots[slot] = value;
            EXPECT_EQ(mail.send(), expected) << "slot " << slot << " value " << value;
        }
    }
    Mail absent = probe();
    absent.timeout.reset();
    EXPECT_EQ(absent.send(), KEMAIL_E_ATTACHMENT);
}

TEST_F(RequestChecks, SubjectOf64BytesIsAcceptedAnd65Refused) {
    Mail ok = probe();
    ok.subject = std::string(64, 'S');
    EXPECT_EQ(ok.send(), KEMAIL_E_ATTACHMENT);
    Mail too_long = probe();
    too_long.subject = std::string(65, 'S');
    EXPECT_EQ(too_long.send(), KEMAIL_E_ARGUMENT);
    Mail empty = probe();
    empty.subject = "";
    EXPECT_EQ(empty.send(), KEMAIL_E_ATTACHMENT);
}

TEST_F(RequestChecks, TextOf10238BytesIsAcceptedAnd10239Refused) {
    Mail ok = probe();
    ok.text = std::string(10238, 't');
    EXPECT_EQ(ok.send(), KEMAIL_E_ATTACHMENT);
    Mail too_long = probe();
    too_long.text = std::string(10239, 't');
    EXPECT_EQ(too_long.send(), KEMAIL_E_ARGUMENT);
    Mail none = probe();
    none.text.reset();
    EXPECT_EQ(none.send(), KEMAIL_E_ATTACHMENT);
}

AuthCertInfo cert(unsigned mechanisms, const std::string& user, const std::string& password) {
    AuthCertInfo c{};
    c.ulMechanisms = mechanisms;
    std::memcpy(c.szUser, user.data(), std::min(user.size(), sizeof c.szUser));
    std::memcpy(c.szPassword, password.data(), std::min(password.size(), sizeof c.szPassword));
    return c;
}

TEST_F(RequestChecks, AuthInfoModeAndSettings) {
    AuthCertInfo good = cert(KEMAIL_MECH_PLAIN, "user", "secret");
    for (auto [mode, expected] :
         {std::pair{0u, KEMAIL_E_ARGUMENT}, {2u, KEMAIL_E_ATTACHMENT}, {3u, KEMAIL_E_ARGUMENT}}) {
        MailAuthInfo auth{mode, 0, &good};
        Mail mail = probe();
        mail.auth = &auth;
        EXPECT_EQ(mail.send(), expected) << "mode " << mode;
    }
    MailAuthInfo no_settings{KEMAIL_AUTH_SMTP, 0, nullptr};
    Mail mail = probe();
    mail.auth = &no_settings;
    EXPECT_EQ(mail.send(), KEMAIL_E_ARGUMENT);
}

TEST_F(RequestChecks, AuthCertBoundaries) {
    struct Case {
        AuthCertInfo cert;
        int expected;
        const char* what;
    };
    const Case cases[] = {
        {cert(8, "user", "pw"), KEMAIL_E_ARGUMENT, "mechanisms mask 8"},
        {cert(0, "user", "pw"), KEMAIL_E_ARGUMENT, "mechanisms mask 0"},
        {cert(KEMAIL_MECH_LOGIN, "user", "pw"), KEMAIL_E_ATTACHMENT, "LOGIN"},
        {cert(KEMAIL_MECH_CRAM_MD5 | 8, "user", "pw"), KEMAIL_E_ATTACHMENT, "CRAM-MD5 and 8"},
        {cert(KEMAIL_MECH_PLAIN, "", "pw"), KEMAIL_E_ARGUMENT, "empty user"},
        {cert(KEMAIL_MECH_PLAIN, std::string(64, 'u'), "pw"), KEMAIL_E_ATTACHMENT, "user of 64"},
        {cert(KEMAIL_MECH_PLAIN, std::string(65, 'u'), "pw"), KEMAIL_E_ARGUMENT,
         "user filling all 65 bytes"},
        {cert(KEMAIL_MECH_PLAIN, "user", ""), KEMAIL_E_ATTACHMENT, "empty password"},
        {cert(KEMAIL_MECH_PLAIN, "user", std::string(64, 'p')), KEMAIL_E_ATTACHMENT,
         "password of 64"},
        {cert(KEMAIL_MECH_PLAIN, "user", std::string(65, 'p')), KEMAIL_E_ARGUMENT,
         "password filling all 65 bytes"},
    };
    for (const Case& c : cases) {
        AuthCertInfo record = c.cert;
        MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &record};
        Mail mail = probe();
        mail.auth = &auth;
        EXPECT_EQ(mail.send(), c.expected) << c.what;
    }
}

TEST_F(RequestChecks, PopSettingOutOfRangeIsAnArgumentError) {
    PopBeforeSmtpInfo pop{};
    pop.ulPort = 110;
    std::strcpy(pop.szHost, "127.0.0.1");
    std::strcpy(pop.szPassword, "pw");  // user left empty
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    Mail mail = probe();
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_ARGUMENT);
    EXPECT_STREQ(mail.message, "");
}

TEST_F(RequestChecks, MissingAttachmentLeavesTheMessageEmpty) {
    Mail mail = probe();
    std::strcpy(mail.message, "stale");
    EXPECT_EQ(mail.send(), KEMAIL_E_ATTACHMENT);
    EXPECT_STREQ(mail.message, "");
}

}  // namespace
}  // namespace send_test
