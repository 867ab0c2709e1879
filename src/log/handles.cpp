// The process-wide trace and mail-log handles of a send. The send entry point
// opens and closes them; every layer above this one writes through them.
#include "kemail.h"

TraceHandle* g_trace = nullptr;
MailLogHandle* g_pLogHandle = nullptr;
