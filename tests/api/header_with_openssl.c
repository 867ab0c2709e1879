/* The public header and OpenSSL's MD5 header in one translation unit: the
 * library's digest context has a name of its own, so nothing is defined
 * twice, and both contexts stay usable side by side. */
#include <openssl/md5.h>

#include "kemail.h"

int kemail_header_with_openssl_check(void);

int kemail_header_with_openssl_check(void) {
    KEMAIL_MD5_CTX ours;
    MD5_CTX theirs;
    return (int)(sizeof ours.buffer + sizeof theirs.data);
}
