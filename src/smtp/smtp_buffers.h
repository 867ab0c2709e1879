// The SMTP session's process-wide command and reply buffers. Composition
// formats header lines in the command buffer and reads files through the
// reply buffer; one session runs at a time per process.
#pragma once

#define KEMAIL_SEND_BUF_SIZE 4100

extern char s_szSendBuf[KEMAIL_SEND_BUF_SIZE];
extern char s_szRecvBuf[KEMAIL_RECV_BUF_SIZE];
