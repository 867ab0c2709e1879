#include "tls/openssl_api.h"

#include "util/format.h"
#include "util/util.h"

#include <dlfcn.h>
#include <pthread.h>

namespace kemail::tls {
namespace {

OpenSslApi g_api;
const OpenSslApi* g_loaded = nullptr;
char g_reason[256] = "";
pthread_once_t g_once = PTHREAD_ONCE_INIT;

template <typename Function>
bool resolve(void* library, Function& out, const char* name) {
    out = reinterpret_cast<Function>(dlsym(library, name));
    if (out != nullptr) return true;
    format_into(g_reason, sizeof g_reason, Overflow::Cut, "%s: %s missing", kLibraryName, name);
    return false;
}

void load() {
    // The handle is kept for the life of the process: OpenSSL keeps
    // process-wide state that must not be unmapped under it.
    void* library = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        format_into(g_reason, sizeof g_reason, Overflow::Cut, "%s not found", kLibraryName);
        return;
    }
#define KEMAIL_RESOLVE(name) resolve(library, g_api.name, #name)
    const bool complete =
        KEMAIL_RESOLVE(OPENSSL_init_ssl) && KEMAIL_RESOLVE(TLS_client_method) &&
        KEMAIL_RESOLVE(SSL_CTX_new) && KEMAIL_RESOLVE(SSL_CTX_free) &&
        KEMAIL_RESOLVE(SSL_CTX_ctrl) && KEMAIL_RESOLVE(SSL_CTX_set_verify) &&
        KEMAIL_RESOLVE(SSL_CTX_set_default_verify_paths) &&
        KEMAIL_RESOLVE(SSL_CTX_load_verify_locations) && KEMAIL_RESOLVE(SSL_new) &&
        KEMAIL_RESOLVE(SSL_free) && KEMAIL_RESOLVE(SSL_set_fd) && KEMAIL_RESOLVE(SSL_ctrl) &&
        KEMAIL_RESOLVE(SSL_set1_host) && KEMAIL_RESOLVE(SSL_get0_param) &&
        KEMAIL_RESOLVE(X509_VERIFY_PARAM_set1_ip_asc) && KEMAIL_RESOLVE(SSL_connect) &&
        KEMAIL_RESOLVE(SSL_read) && KEMAIL_RESOLVE(SSL_write) && KEMAIL_RESOLVE(SSL_pending) &&
        KEMAIL_RESOLVE(SSL_get_error) && KEMAIL_RESOLVE(SSL_shutdown) &&
        KEMAIL_RESOLVE(SSL_get_verify_result) && KEMAIL_RESOLVE(X509_verify_cert_error_string) &&
        KEMAIL_RESOLVE(SSL_get_version) && KEMAIL_RESOLVE(SSL_get_current_cipher) &&
        KEMAIL_RESOLVE(SSL_CIPHER_get_name) && KEMAIL_RESOLVE(ERR_get_error) &&
        KEMAIL_RESOLVE(ERR_error_string_n) && KEMAIL_RESOLVE(ERR_clear_error);
#undef KEMAIL_RESOLVE
    if (!complete) return;
    if (g_api.OPENSSL_init_ssl(0, nullptr) != 1) {
        format_into(g_reason, sizeof g_reason, Overflow::Cut, "%s could not be initialised",
                    kLibraryName);
        return;
    }
    g_loaded = &g_api;
}

}  // namespace

const OpenSslApi* openssl(char* reason, size_t size) noexcept {
    pthread_once(&g_once, load);
    if (g_loaded == nullptr) copy_cut(reason, size, g_reason);
    return g_loaded;
}

}  // namespace kemail::tls
