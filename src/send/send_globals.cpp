// Process-wide state of a send: the open trace and mail-log handles, the busy
// word, and the Content-Disposition form read from the mail configuration.
#include "kemail.h"

TraceHandle*   g_trace = nullptr;
MailLogHandle* g_pLogHandle = nullptr;
uint32_t       g_ulSendBusy = 0;
int            Content_D_flg = 0;
