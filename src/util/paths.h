// The package's fixed directories. They are not configurable on purpose:
// operators and their tools find configuration, traces and logs here.
#pragma once

#define KEMAIL_ETC_DIR    "/etc/opt/QRZNvolta"
#define KEMAIL_VAR_DIR    "/var/opt/QRZNvolta"
#define KEMAIL_MAIL_INI   KEMAIL_ETC_DIR "/kemail.ini"
#define KEMAIL_TRACE_CONF KEMAIL_ETC_DIR "/trc_conf"

// Longest path the file helpers accept; longer ones are refused, never cut.
#define KEMAIL_PATH_MAX 1024
