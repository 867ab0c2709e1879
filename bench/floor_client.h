/* The floor the library is measured against: a minimal SMTP client in plain
 * C that sends an already finished message with as few system calls as the
 * protocol allows (one send per command, one recv per reply, message data in
 * 256 KiB sends). It composes nothing, logs nothing and traces nothing, and
 * judges replies by their first digit only. */
#ifndef KEMAIL_BENCH_FLOOR_CLIENT_H
#define KEMAIL_BENCH_FLOOR_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens a session with 127.0.0.1:port: connect, greeting, EHLO. Returns the
 * socket, or -1. */
int floor_open(uint16_t port);

/* One transaction: MAIL FROM, RCPT TO, DATA, the message (already
 * dot-stuffed, CR LF line ends), the end mark. With reset set, RSET follows
 * (as between the pieces of a split mail). Returns 0, or -1. */
int floor_transaction(int sock, const char* from, const char* to, const char* message,
                      size_t length, int reset);

/* QUIT and close. */
void floor_close(int sock);

#ifdef __cplusplus
}
#endif

#endif
