// OpenSSL, loaded when a send first asks for TLS (dlopen of libssl.so.3), so
// that the library has no link-time dependency on it and keeps loading and
// sending in clear on a host without it. The headers give the types only;
// every function is reached through the table below.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <cstddef>

namespace kemail::tls {

// The name that is loaded, and the one failure reasons give.
constexpr char kLibraryName[] = "libssl.so.3";

struct OpenSslApi {
    decltype(&::OPENSSL_init_ssl) OPENSSL_init_ssl;
    decltype(&::TLS_client_method) TLS_client_method;
    decltype(&::SSL_CTX_new) SSL_CTX_new;
    decltype(&::SSL_CTX_free) SSL_CTX_free;
    decltype(&::SSL_CTX_ctrl) SSL_CTX_ctrl;
    decltype(&::SSL_CTX_set_verify) SSL_CTX_set_verify;
    decltype(&::SSL_CTX_set_default_verify_paths) SSL_CTX_set_default_verify_paths;
    decltype(&::SSL_CTX_load_verify_locations) SSL_CTX_load_verify_locations;
    decltype(&::SSL_new) SSL_new;
    decltype(&::SSL_free) SSL_free;
    decltype(&::SSL_set_fd) SSL_set_fd;
    decltype(&::SSL_ctrl) SSL_ctrl;
    decltype(&::SSL_set1_host) SSL_set1_host;
    decltype(&::SSL_get0_param) SSL_get0_param;
    decltype(&::X509_VERIFY_PARAM_set1_ip_asc) X509_VERIFY_PARAM_set1_ip_asc;
    decltype(&::SSL_connect) SSL_connect;
    decltype(&::SSL_read) SSL_read;
    decltype(&::SSL_write) SSL_write;
    decltype(&::SSL_pending) SSL_pending;
    decltype(&::SSL_get_error) SSL_get_error;
    decltype(&::SSL_shutdown) SSL_shutdown;
    decltype(&::SSL_get_verify_result) SSL_get_verify_result;
    decltype(&::X509_verify_cert_error_string) X509_verify_cert_error_string;
    decltype(&::SSL_get_version) SSL_get_version;
    decltype(&::SSL_get_current_cipher) SSL_get_current_cipher;
    decltype(&::SSL_CIPHER_get_name) SSL_CIPHER_get_name;
    decltype(&::ERR_get_error) ERR_get_error;
    decltype(&::ERR_error_string_n) ERR_error_string_n;
    decltype(&::ERR_clear_error) ERR_clear_error;
};

// The loaded table, or null with a reason ("libssl.so.3 not found", or the
// name of a missing function) cut to fit reason[size]. Loaded once per
// process and never unloaded; later calls return the same answer.
const OpenSslApi* openssl(char* reason, size_t size) noexcept;

}  // namespace kemail::tls
