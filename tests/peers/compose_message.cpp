// Composes a message with the library's composition functions, for the
// real-parser checks of tests/peers/compose_*_test.sh.
//
//   peer_compose_message compose OUT [options]
//       writes the whole message (header, text, attachments) to OUT.
//   peer_compose_message pieces DIR SIZE_KB [options]
//       composes the inner message of a split send into DIR/message.eml,
//       cuts it with SMTP_getSendData into pieces of SIZE_KB, sends every
//       piece with SMTP_sendData_Partial to a recording TCP server on
//       127.0.0.1 and stores what the server received as DIR/piece-N.eml
//       (without the end-of-data mark). Prints the piece count.
// Options: --from ADDR --to LIST --subject-file FILE (raw Shift_JIS bytes)
//          --body FILE --attach FILE (repeatable) --content-d N
#include "kemail.h"
#include "support/script_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string from = "sender@example.com";
    std::string to = "rcpt@example.com";
    std::string subject;
    bool has_subject = false;
    std::string body;
    std::vector<std::string> attachments;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool parse(int argc, char** argv, int first, Options& o) {
    for (int i = first; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc) return false;
        const std::string v = argv[++i];
        if (a == "--from")
            o.from = v;
        else if (a == "--to")
            o.to = v;
        else if (a == "--subject-file") {
            o.subject = slurp(v);
            o.has_subject = true;
        } else if (a == "--body")
            o.body = v;
        else if (a == "--attach")
            o.attachments.push_back(v);
        else if (a == "--content-d")
            Content_D_flg = std::atoi(v.c_str());
        else
            return false;
    }
    return true;
}

int compose(const std::string& out, const Options& o, int partial, char* boundary) {
    const int fd = open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::perror(out.c_str());
        return -1;
    }
    unsigned int err = 0;
    const int multipart = o.attachments.empty() ? 0 : 1;
    int r = SMTP_makeTopData(fd, o.body.empty() ? nullptr : o.body.c_str(), o.from.c_str(),
                             o.to.c_str(), o.has_subject ? o.subject.c_str() : nullptr, boundary,
                             multipart, partial, &err);
    for (size_t i = 0; r == 0 && i < o.attachments.size(); ++i) {
        r = SMTP_makeAppendData(fd, o.attachments[i].c_str(), boundary,
                                i + 1 < o.attachments.size(), &err);
    }
    if (r != 0) {
        std::fprintf(stderr, "composition failed: %d (errno %u)\n", r, err);
        close(fd);
        return -1;
    }
    return fd;
}

int connect_to(uint16_t port) {
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

int pieces(const std::string& dir, int size_kb, const Options& o) {
    char boundary[KEMAIL_BOUNDARY_SIZE] = {};
    const int fd = compose(dir + "/message.eml", o, 1, boundary);
    if (fd < 0) return 1;
    std::vector<char> buffer(static_cast<size_t>(size_kb) * 1024);
    unsigned int err = 0;
    // The counting pass, then the sending pass, as a split send does.
    int total = 0;
    lseek(fd, 0, SEEK_SET);
    for (;;) {
        std::fill(buffer.begin(), buffer.end(), 0);
        const int n = SMTP_getSendData(fd, buffer.data(), size_kb, boundary, &err);
        if (n < 0) return 2;
        if (n == 0) break;
        ++total;
    }
    char id[KEMAIL_PARTIAL_ID_SIZE] = {};
    SMTP_makeid(id, o.from.c_str());
    const SmtpTimeOut timeouts = {60, 60, 60, 60, 60, 60};
    SMTP_SetTimeOutInfo(&timeouts);
    lseek(fd, 0, SEEK_SET);
    for (int number = 1; number <= total; ++number) {
        std::fill(buffer.begin(), buffer.end(), 0);
        const int n = SMTP_getSendData(fd, buffer.data(), size_kb, boundary, &err);
        if (n <= 0) return 3;
        kemail_test::ScriptServer server(kemail_test::Script().bound_ms(10000).drain());
        const int sock = connect_to(server.port());
        if (sock < 0) return 4;
        const int r = SMTP_sendData_Partial(sock, buffer.data(), n, o.from.c_str(), o.to.c_str(),
                                            o.has_subject ? o.subject.c_str() : nullptr, number,
                                            total, id, &err);
        close(sock);
        if (r != 0 || !server.wait_done() || server.failed()) {
            std::fprintf(stderr, "piece %d: result %d\n", number, r);
            return 5;
        }
        std::ofstream(dir + "/piece-" + std::to_string(number) + ".eml", std::ios::binary)
            << server.received();
    }
    close(fd);
    std::printf("%d\n", total);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (argc >= 3 && std::strcmp(argv[1], "compose") == 0 && parse(argc, argv, 3, o)) {
        char boundary[KEMAIL_BOUNDARY_SIZE] = {};
        const int fd = compose(argv[2], o, 0, boundary);
        if (fd < 0) return 1;
        close(fd);
        return 0;
    }
    if (argc >= 4 && std::strcmp(argv[1], "pieces") == 0 && parse(argc, argv, 4, o)) {
        return pieces(argv[2], std::atoi(argv[3]), o);
    }
    std::fprintf(stderr, "usage: %s compose OUT [options] | pieces DIR SIZE_KB [options]\n",
                 argv[0]);
    return 64;
}
