// POP before SMTP: one complete POP3 session (connect, log in, status, log
// out) with the caller's PopBeforeSmtpInfo, then the caller's wait, so that a
// server which relays only for recent POP3 users accepts the mail.
#pragma once

#include "kemail.h"

namespace kemail {

// Runs the POP3 session for auth->pSettings (a PopBeforeSmtpInfo) and waits
// lWait milliseconds. Traces BEFORE.... to g_trace. Returns:
//    0  done;
//   -1  a setting is out of range (nothing is connected);
//  -15  the server refused USER, PASS or STAT (message: its reply line);
//  -16  a system error on the connection (message: errno as "%d");
//  -17  the POP time-out ran out (message: left empty);
//  -18  the server could not be resolved or reached (message: "%d" of errno
//       or the resolver's error).
// message is the caller's buffer of at least KEMAIL_MESSAGE_SIZE bytes. A
// failed log-out is tolerated (result 0, message emptied).
int pop_before_smtp(const MailAuthInfo* auth, char* message);

}  // namespace kemail
