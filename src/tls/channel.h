// Which socket runs TLS. The transports keep their designed signatures (a
// plain socket number), so the session that encrypts a socket is found by
// the number: the SMTP and POP3 readers and writers ask session_for() and
// go through the session when there is one.
//
// A caller of the exported SMTP functions may close a socket without telling
// the library, and the number may come back for another connection: each
// entry remembers the socket's inode and is dropped when the number now
// names another socket.
#pragma once

#include "tls/tls_session.h"

namespace kemail::tls {

// The session running on fd, or null for a socket in the clear.
TlsSession* session_for(int fd) noexcept;

// Makes session (allocated with new) the one running on fd; the registry
// owns it from now on. False (and the session freed) when fd is no socket
// or the table is full.
bool attach(int fd, TlsSession* session) noexcept;

// Says goodbye on fd's session and frees it; nothing for a socket in the
// clear. Call before closing the socket.
void release(int fd) noexcept;

// Hold the registry's lock while the process forks (so that the child does
// not start with it held by a thread it does not have) and release it after,
// in parent and child.
void hold_for_fork() noexcept;
void release_after_fork() noexcept;

}  // namespace kemail::tls
