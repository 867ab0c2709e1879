#include "floor_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kChunk = 256 * 1024, kReplySize = 1024 };

static int send_all(int sock, const char* data, size_t length) {
    while (length > 0) {
        const ssize_t n = send(sock, data, length, MSG_NOSIGNAL);
        if (n <= 0) return -1;
        data += n;
        length -= (size_t)n;
    }
    return 0;
}

/* Reads one reply (a multi-line one to its last line) and returns its first
 * digit, or 0 on a closed or failed socket. */
static char read_reply(int sock) {
    char reply[kReplySize];
    size_t used = 0;
    for (;;) {
        const ssize_t n = recv(sock, reply + used, sizeof reply - 1 - used, 0);
        if (n <= 0) return 0;
        used += (size_t)n;
        reply[used] = '\0';
        /* The last line is the one whose fourth character is not '-'. */
        const char* line = reply;
        for (;;) {
            const char* end = strstr(line, "\r\n");
            if (!end) break;
            if (end - line >= 4 && line[3] != '-') return reply[0];
            if (end - line < 4) return reply[0];
            line = end + 2;
        }
        if (used == sizeof reply - 1) {
            /* Keep only the unfinished line. */
            const size_t keep = used - (size_t)(line - reply);
            memmove(reply, line, keep);
            used = keep;
        }
    }
}

static int command(int sock, const char* line, char expected) {
    if (send_all(sock, line, strlen(line)) != 0) return -1;
    return read_reply(sock) == expected ? 0 : -1;
}

int floor_open(uint16_t port) {
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock < 0) return -1;
    const int one = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(sock, (struct sockaddr*)&addr, sizeof addr) != 0 || read_reply(sock) != '2' ||
        command(sock, "EHLO floor\r\n", '2') != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

int floor_transaction(int sock, const char* from, const char* to, const char* message,
                      size_t length, int reset) {
    char line[512];
    int n = snprintf(line, sizeof line, "MAIL FROM:<%s>\r\n", from);
    if (n < 0 || (size_t)n >= sizeof line || command(sock, line, '2') != 0) return -1;
    n = snprintf(line, sizeof line, "RCPT TO:<%s>\r\n", to);
    if (n < 0 || (size_t)n >= sizeof line || command(sock, line, '2') != 0) return -1;
    if (command(sock, "DATA\r\n", '3') != 0) return -1;
    for (size_t done = 0; done < length; done += kChunk) {
        const size_t part = length - done < kChunk ? length - done : kChunk;
        if (send_all(sock, message + done, part) != 0) return -1;
    }
    if (command(sock, "\r\n.\r\n", '2') != 0) return -1;
    return reset ? command(sock, "RSET\r\n", '2') : 0;
}

void floor_close(int sock) {
    if (sock < 0) return;
    command(sock, "QUIT\r\n", '2');
    close(sock);
}
