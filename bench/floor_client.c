#define _GNU_SOURCE /* memmem */
#include "floor_client.h"

#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kChunk = 256 * 1024 };

static int send_all(floor_session* s, const char* data, size_t length) {
    while (length > 0) {
        const size_t part = length < kChunk ? length : kChunk;
        if (s->ssl) {
            /* A blocking SSL_write returns only when all of part is sent. */
            if (SSL_write(s->ssl, data, (int)part) != (int)part) return -1;
            data += part;
            length -= part;
            continue;
        }
        const ssize_t n = send(s->sock, data, part, MSG_NOSIGNAL);
        if (n <= 0) return -1;
        data += n;
        length -= (size_t)n;
    }
    return 0;
}

static ssize_t receive(floor_session* s, char* into, size_t room) {
    if (s->ssl) {
        const int n = SSL_read(s->ssl, into, (int)room);
        return n > 0 ? n : -1;
    }
    return recv(s->sock, into, room, 0);
}

/* Reads one reply (a multi-line one to its last line) and returns its first
 * digit, or 0 on a closed or failed connection. Bytes after the reply (the
 * next replies of a pipelined group) stay for the next call. */
static char read_reply(floor_session* s) {
    char digit = 0;
    for (;;) {
        size_t start = 0;
        for (;;) {
            const char* line = s->replies + start;
            const char* end = memmem(line, s->used - start, "\r\n", 2);
            if (!end) break;
            if (!digit) digit = line[0];
            start = (size_t)(end + 2 - s->replies);
            /* The last line is the one whose fourth character is not '-'. */
            if (end - line < 4 || line[3] != '-') {
                memmove(s->replies, s->replies + start, s->used - start);
                s->used -= start;
                return digit;
            }
        }
        /* Continuation lines are done with: keep only the unfinished one. */
        memmove(s->replies, s->replies + start, s->used - start);
        s->used -= start;
        if (s->used == sizeof s->replies) return 0; /* a line longer than any reply */
        const ssize_t n = receive(s, s->replies + s->used, sizeof s->replies - s->used);
        if (n <= 0) return 0;
        s->used += (size_t)n;
    }
}

static int command(floor_session* s, const char* line, char expected) {
    if (send_all(s, line, strlen(line)) != 0) return -1;
    return read_reply(s) == expected ? 0 : -1;
}

static void close_session(floor_session* s) {
    if (s->ssl) {
        SSL_free(s->ssl);
        s->ssl = NULL;
    }
    if (s->sock >= 0) close(s->sock);
    s->sock = -1;
}

static int start_tls(floor_session* s, SSL_CTX* tls, const char* server_name) {
    if (command(s, "STARTTLS\r\n", '2') != 0 || s->used != 0) return -1;
    s->ssl = SSL_new(tls);
    if (!s->ssl || SSL_set_fd(s->ssl, s->sock) != 1 ||
        SSL_set_tlsext_host_name(s->ssl, server_name) != 1 ||
        SSL_set1_host(s->ssl, server_name) != 1 || SSL_connect(s->ssl) != 1) {
        return -1;
    }
    return command(s, "EHLO floor\r\n", '2');
}

int floor_open(floor_session* s, uint16_t port, SSL_CTX* tls, const char* server_name) {
    memset(s, 0, sizeof *s);
    s->sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s->sock < 0) return -1;
    const int one = 1;
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (setsockopt(s->sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0 ||
        connect(s->sock, (struct sockaddr*)&addr, sizeof addr) != 0 || read_reply(s) != '2' ||
        command(s, "EHLO floor\r\n", '2') != 0 || (tls && start_tls(s, tls, server_name) != 0)) {
        close_session(s);
        return -1;
    }
    return 0;
}

int floor_transaction(floor_session* s, const char* from, const char* to, const char* message,
                      size_t length, int flags) {
    char group[1024];
    const int n =
        snprintf(group, sizeof group, "%s%sMAIL FROM:<%s>\r\nRCPT TO:<%s>\r\nDATA\r\n",
                 s->end_pending ? "\r\n.\r\n" : "", s->reset_pending ? "RSET\r\n" : "", from, to);
    if (n < 0 || (size_t)n >= sizeof group) return -1;
    if (flags & FLOOR_PIPELINE) {
        if (send_all(s, group, (size_t)n) != 0) return -1;
        if (s->end_pending && read_reply(s) != '2') return -1;
        if (s->reset_pending && read_reply(s) != '2') return -1;
        s->end_pending = 0;
        s->reset_pending = 0;
        if (read_reply(s) != '2' || read_reply(s) != '2' || read_reply(s) != '3') return -1;
    } else {
        /* The same lines one at a time, each after the reply to the last. */
        const int lines = 3 + s->reset_pending;
        const char* line = group;
        s->reset_pending = 0;
        for (int i = 0; i < lines; ++i) {
            const char* end = strstr(line, "\r\n") + 2;
            if (send_all(s, line, (size_t)(end - line)) != 0) return -1;
            if (read_reply(s) != (i == lines - 1 ? '3' : '2')) return -1;
            line = end;
        }
    }
    if (send_all(s, message, length) != 0) return -1;
    if ((flags & FLOOR_PIPELINE) && (flags & FLOOR_RESET)) {
        /* The end mark and the RSET go with the next group (or the QUIT). */
        s->end_pending = 1;
        s->reset_pending = 1;
        return 0;
    }
    if (command(s, "\r\n.\r\n", '2') != 0) return -1;
    if (!(flags & FLOOR_RESET)) return 0;
    return command(s, "RSET\r\n", '2');
}

void floor_close(floor_session* s) {
    if (s->sock < 0) return;
    if (s->end_pending) {
        /* The end mark, RSET and QUIT go together; every reply is read. */
        if (send_all(s, "\r\n.\r\nRSET\r\nQUIT\r\n", 17) == 0 && read_reply(s) == '2' &&
            read_reply(s) == '2')
            read_reply(s);
    } else if (s->reset_pending) {
        /* RSET and QUIT go together; both replies are read. */
        if (send_all(s, "RSET\r\nQUIT\r\n", 12) == 0 && read_reply(s) == '2') read_reply(s);
    } else {
        command(s, "QUIT\r\n", '2');
    }
    if (s->ssl) SSL_shutdown(s->ssl);
    close_session(s);
}
