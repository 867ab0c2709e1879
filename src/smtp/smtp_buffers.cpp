#include "kemail.h"
#include "smtp/smtp_buffers.h"

char s_szSendBuf[KEMAIL_SEND_BUF_SIZE];
char s_szRecvBuf[KEMAIL_RECV_BUF_SIZE];
