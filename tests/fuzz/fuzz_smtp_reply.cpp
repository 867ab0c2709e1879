// The SMTP reply readers over a socket whose server side sent arbitrary
// bytes and closed: SMTP_recv, SMTP_returnMessage and SMTP_readEhloReply.
// Each result, each line handed out and what stays in the socket is checked
// against a plain model of the line rules: a line ends after the first CR LF
// or when it fills the buffer; a reply goes on while the fourth byte is '-'.
#include "kemail.h"

#include "fuzz_support.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace {

// The length of the next line in `stream` from `pos`, for a buffer of `size`
// bytes; `complete` is false when the stream ends before the line does.
size_t model_line(const std::string& stream, size_t pos, size_t size, bool* complete) {
    const size_t left = stream.size() - pos;
    for (size_t n = 1; n <= std::min(left, size); ++n) {
        if (n >= 2 && stream[pos + n - 2] == '\r' && stream[pos + n - 1] == '\n') {
            *complete = true;
            return n;
        }
    }
    *complete = left >= size;
    return std::min(left, size);
}

// Checks that buf holds exactly the model's line and zeros behind it.
void check_line(const char* buf, size_t size, const std::string& stream, size_t pos, size_t n) {
    FUZZ_CHECK(std::memcmp(buf, stream.data() + pos, n) == 0);
    for (size_t k = n; k < size; ++k) FUZZ_CHECK(buf[k] == '\0');
}

void recv_lines(const std::string& stream, size_t size) {
    fuzz::FedSocket sock(reinterpret_cast<const uint8_t*>(stream.data()), stream.size());
    std::unique_ptr<char[]> buf(new char[size]);
    size_t pos = 0;
    for (;;) {
        unsigned int err = 1234;
        const int result = SMTP_recv(sock.reader(), buf.get(), static_cast<int>(size), &err);
        bool complete = false;
        const size_t n = model_line(stream, pos, size, &complete);
        if (!complete) {
            // The stream ended inside the line: the peer's close is reported.
            FUZZ_CHECK(result == -4);
            check_line(buf.get(), size, stream, pos, n);
            FUZZ_CHECK(sock.rest().empty());
            return;
        }
        FUZZ_CHECK(result == 0);
        FUZZ_CHECK(err == 0);
        check_line(buf.get(), size, stream, pos, n);
        pos += n;
    }
}

void read_reply(const std::string& stream, size_t size) {
    fuzz::FedSocket sock(reinterpret_cast<const uint8_t*>(stream.data()), stream.size());
    std::unique_ptr<char[]> buf(new char[size]);
    unsigned int err = 1234;
    const int result = SMTP_returnMessage(sock.reader(), buf.get(), static_cast<int>(size), &err);
    size_t pos = 0;
    for (;;) {
        bool complete = false;
        const size_t n = model_line(stream, pos, size, &complete);
        if (!complete) {
            FUZZ_CHECK(result == -4);
            check_line(buf.get(), size, stream, pos, n);
            FUZZ_CHECK(sock.rest().empty());
            return;
        }
        if (size < 4 || n < 4 || stream[pos + 3] != '-') {
            FUZZ_CHECK(result == 0);
            FUZZ_CHECK(err == 0);
            check_line(buf.get(), size, stream, pos, n);
            FUZZ_CHECK(sock.rest() == stream.substr(pos + n));
            return;
        }
        pos += n;
    }
}

void read_ehlo(const std::string& stream) {
    fuzz::FedSocket sock(reinterpret_cast<const uint8_t*>(stream.data()), stream.size());
    std::unique_ptr<char[]> capability(new char[KEMAIL_RECV_BUF_SIZE]);
    std::memset(capability.get(), 'x', KEMAIL_RECV_BUF_SIZE);
    unsigned int err = 1234;
    const int result = SMTP_readEhloReply(sock.reader(), capability.get(), &err);

    // The model: every line must begin with '2'; the capability is the last
    // line with "AUTH " after its code, cut to fit with its NUL.
    const size_t size = KEMAIL_RECV_BUF_SIZE;
    size_t pos = 0;
    bool refused = false;
    std::string auth_line;
    bool have_auth = false;
    for (;;) {
        bool complete = false;
        const size_t n = model_line(stream, pos, size, &complete);
        if (!complete) {
            FUZZ_CHECK(result == -4);
            FUZZ_CHECK(sock.rest().empty());
            return;
        }
        const std::string line = stream.substr(pos, n);
        if (line[0] != '2') refused = true;
        if (line.size() >= 9 && line.compare(4, 5, "AUTH ") == 0) {
            auth_line = line.substr(0, std::min(std::strlen(line.c_str()), size - 1));
            have_auth = true;
        }
        pos += n;
        if (n < 4 || line[3] != '-') break;
    }
    FUZZ_CHECK(result == (refused ? 1 : 0));
    FUZZ_CHECK(sock.rest() == stream.substr(pos));
    if (have_auth) {
        FUZZ_CHECK(std::strlen(capability.get()) == auth_line.size());
        FUZZ_CHECK(auth_line == capability.get());
    } else {
        FUZZ_CHECK(capability[0] == 'x');  // left alone
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > fuzz::kMaxStream) return 0;
    // Byte 0: which reader; byte 1: the buffer size for the first two
    // (the designed 1028, or a small one so that lines overflow it).
    const int which = data[0] % 3;
    const size_t buffer_size = data[1] < 128 ? KEMAIL_RECV_BUF_SIZE : 1 + data[1] % 16;
    const std::string stream(reinterpret_cast<const char*>(data + 2), size - 2);
    // A generous phase time-out: the stream is all there, nothing waits.
    SMTP_SetTimeOut(600);
    SMTP_SetStartTime();
    switch (which) {
        case 0: recv_lines(stream, buffer_size); break;
        case 1: read_reply(stream, buffer_size); break;
        default: read_ehlo(stream); break;
    }
    return 0;
}
