/* The public header must compile as strict C99 and its records be usable. */
#include "kemail.h"

int kemail_header_c99_check(void);

int kemail_header_c99_check(void) {
    MailAddressInfo address = {1, 0, 0};
    MailContentInfo content = {KEMAIL_CONTENT_TEXT, 0, 0};
    AuthCertInfo cert = {KEMAIL_MECH_CRAM_MD5, "user", "password"};
    char message[KEMAIL_MESSAGE_SIZE];
    message[0] = '\0';
    return (int)address.ulKind + (int)content.ulKind + (int)cert.ulMechanisms + message[0] +
           (int)sizeof(PopBeforeSmtpInfo);
}
