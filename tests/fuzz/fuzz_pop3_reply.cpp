// The POP3 client's reply reader over a socket whose server side sent
// arbitrary bytes and closed: one session of Pop3_Login, Pop3_STAT and
// Pop3_Logout, checked against a model of the line rules (a line ends after
// LF or at 1027 bytes; it is positive when it has more than three bytes and
// begins with "+OK"), of the results, of the reply copied to the caller and
// of the commands written.
#include "kemail.h"

#include "fuzz_support.h"

#include <cstring>
#include <string>

namespace {

constexpr size_t kLineMax = 1027;

class Model {
public:
    explicit Model(const std::string& stream) : stream_(stream) {}

    // Takes the next line; false when the stream ends before it does.
    bool next(std::string* line) {
        const size_t left = stream_.size() - pos_;
        size_t n = 0;
        while (n < left && n < kLineMax) {
            if (stream_[pos_ + n++] == '\n') break;
        }
        const bool complete = (n > 0 && stream_[pos_ + n - 1] == '\n') || n == kLineMax;
        *line = stream_.substr(pos_, n);
        pos_ += n;
        return complete;
    }

private:
    const std::string& stream_;
    size_t pos_ = 0;
};

bool positive(const std::string& line) { return line.size() > 3 && line.compare(0, 3, "+OK") == 0; }

// The caller's copy of a refusal: the line up to a NUL, at most 255 bytes.
std::string copied(const std::string& line) {
    return line.substr(0, std::min(std::strlen(line.c_str()), size_t{KEMAIL_MESSAGE_SIZE - 1}));
}

// One step of the model: the expected result for a command whose reply is
// the next line, given its refusal code.
int expect(Model& model, int refused, std::string* reply) {
    std::string line;
    if (!model.next(&line)) return -1;
    if (positive(line)) return 0;
    *reply = copied(line);
    return refused;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Pop3_SetTimeOut(600, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > fuzz::kMaxStream) return 0;
    const std::string stream(reinterpret_cast<const char*>(data), size);
    fuzz::FedSocket sock(data, size);
    Model model(stream);
    char reply[KEMAIL_MESSAGE_SIZE];
    int err = 0;
    std::string expected_reply;
    std::string expected_sent;

    std::memset(reply, 'x', sizeof reply);
    int result = Pop3_Login(sock.reader(), "user", "secret", reply, &err, nullptr);
    int expected = expect(model, -2, &expected_reply);
    if (expected == 0) {
        expected_sent += "USER user\r\n";
        expected = expect(model, -3, &expected_reply);
    }
    if (expected == 0) {
        expected_sent += "PASS secret\r\n";
        expected = expect(model, -4, &expected_reply);
    }
    FUZZ_CHECK(result == expected);
    if (result == 0 || result == -1) FUZZ_CHECK(reply[0] == '\0');
    if (result < -1) FUZZ_CHECK(expected_reply == reply);

    if (result == 0) {
        std::memset(reply, 'x', sizeof reply);
        result = Pop3_STAT(sock.reader(), reply, &err, nullptr);
        expected_sent += "STAT\r\n";
        expected_reply.clear();
        expected = expect(model, -5, &expected_reply);
        FUZZ_CHECK(result == expected);
        if (result == 0 || result == -1) FUZZ_CHECK(reply[0] == '\0');
        if (result < -1) FUZZ_CHECK(expected_reply == reply);
    }
    if (result == 0) {
        std::memset(reply, 'x', sizeof reply);
        result = Pop3_Logout(sock.reader(), reply, &err, nullptr);
        expected_sent += "QUIT\r\n";
        expected_reply.clear();
        expected = expect(model, -8, &expected_reply);
        FUZZ_CHECK(result == expected);
        if (result == -8) FUZZ_CHECK(expected_reply == reply);
    }
    FUZZ_CHECK(sock.sent() == expected_sent);
    return 0;
}
