/* The floor the library is measured against: a minimal SMTP client in plain
 * C that sends an already finished message with as few system calls as the
 * protocol allows (one send per command, one recv per reply, message data in
 * 256 KiB sends). It composes nothing, logs nothing and traces nothing, and
 * judges replies by their first digit only.
 *
 * With an OpenSSL client context it does STARTTLS after EHLO (verifying the
 * server as the context says) and EHLO again; with FLOOR_PIPELINE it groups
 * MAIL FROM, RCPT TO and DATA in one write (RFC 2920) and puts the end mark
 * and the RSET that end a piece in front of the next piece's MAIL FROM. */
#ifndef KEMAIL_BENCH_FLOOR_CLIENT_H
#define KEMAIL_BENCH_FLOOR_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct ssl_st;
struct ssl_ctx_st;

/* Replies of a few lines each; the sink's longest is its EHLO reply. */
enum { FLOOR_REPLY_SIZE = 1024 };

typedef struct floor_session {
    int sock;
    struct ssl_st* ssl; /* null for a session in clear */
    int end_pending;    /* a pipelined end mark waits for the next command group */
    int reset_pending;  /* a pipelined RSET waits for the next command group */
    size_t used;        /* reply bytes received and not yet judged */
    char replies[FLOOR_REPLY_SIZE];
} floor_session;

enum {
    FLOOR_RESET = 1,   /* RSET after the transaction, as between split pieces */
    FLOOR_PIPELINE = 2 /* command groups in one write */
};

/* Opens a session with 127.0.0.1:port: connect, greeting, EHLO, and with
 * tls not null STARTTLS, the handshake (server_name set as SNI and checked
 * against the certificate) and EHLO again. Returns 0, or -1 with the session
 * closed. */
int floor_open(floor_session* session, uint16_t port, struct ssl_ctx_st* tls,
               const char* server_name);

/* One transaction: MAIL FROM, RCPT TO, DATA, the message (already
 * dot-stuffed, CR LF line ends), the end mark, and RSET when flags has
 * FLOOR_RESET. Returns 0, or -1. */
int floor_transaction(floor_session* session, const char* from, const char* to, const char* message,
                      size_t length, int flags);

/* QUIT (after a pending RSET) and close. */
void floor_close(floor_session* session);

#ifdef __cplusplus
}
#endif

#endif
