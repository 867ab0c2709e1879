#include "tls/tls_session.h"

#include "util/format.h"
#include "util/util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace kemail::tls {
namespace {

bool is_address(const char* name) {
    unsigned char scratch[sizeof(in6_addr)];
    return inet_pton(AF_INET, name, scratch) == 1 || inet_pton(AF_INET6, name, scratch) == 1;
}

// Waits until fd is readable (or writable) for at most the time left until
// `deadline`. 1 when ready, 0 on time-out, -1 with errno.
int wait_ready(int fd, bool for_write, time_t deadline) {
    for (;;) {
        const time_t now = time(nullptr);
        if (now >= deadline) return 0;
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval wait{deadline - now, 0};
        const int ready =
            select(fd + 1, for_write ? nullptr : &set, for_write ? &set : nullptr, nullptr, &wait);
        if (ready < 0 && errno == EINTR) continue;
        return ready;
    }
}

// OpenSSL writes to the socket with write(), which raises SIGPIPE on a
// connection the peer has closed; the agent must get EPIPE instead. The
// signal is blocked for this thread while OpenSSL runs, and one that became
// pending meanwhile is taken off again.
class SigPipeBlocked {
public:
    SigPipeBlocked() {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        blocked_ = pthread_sigmask(SIG_BLOCK, &pipe, &saved_) == 0;
    }
    ~SigPipeBlocked() {
        if (!blocked_) return;
        const int saved_errno = errno;
        sigset_t pending;
        if (!was_pending_ && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
            sigset_t pipe;
            sigemptyset(&pipe);
            sigaddset(&pipe, SIGPIPE);
            const timespec now{0, 0};
            while (sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
        errno = saved_errno;
    }
    SigPipeBlocked(const SigPipeBlocked&) = delete;
    SigPipeBlocked& operator=(const SigPipeBlocked&) = delete;

private:
    sigset_t saved_;
    bool blocked_ = false;
    bool was_pending_ = false;
};

}  // namespace

TlsSession::~TlsSession() {
    // What was gathered may hold an AUTH string or a password.
    explicit_bzero(out_, sizeof out_);
    if (ssl_ != nullptr) api_->SSL_free(ssl_);
    if (context_ != nullptr) api_->SSL_CTX_free(context_);
}

void TlsSession::describe_failure(const char* what, char* reason, size_t size) noexcept {
    const long verified = ssl_ != nullptr ? api_->SSL_get_verify_result(ssl_) : X509_V_OK;
    if (verified != X509_V_OK) {
        format_into(reason, size, Overflow::Cut, "certificate verify failed: %s",
                    api_->X509_verify_cert_error_string(verified));
    } else if (const unsigned long code = api_->ERR_get_error(); code != 0) {
        char text[256];
        api_->ERR_error_string_n(code, text, sizeof text);
        format_into(reason, size, Overflow::Cut, "%s: %s", what, text);
    } else {
        format_into(reason, size, Overflow::Cut, "%s: %s", what,
                    errno != 0 ? std::strerror(errno) : "connection closed");
    }
    api_->ERR_clear_error();
}

int TlsSession::wait_for(int ssl_error, unsigned seconds) noexcept {
    const time_t deadline = time(nullptr) + static_cast<time_t>(seconds);
    const int ready = wait_ready(fd_, ssl_error == SSL_ERROR_WANT_WRITE, deadline);
    if (ready == 0) errno = ETIMEDOUT;
    return ready > 0 ? 0 : -1;
}

int TlsSession::start(int fd, const TlsSettings& settings, unsigned seconds, char* reason,
                      size_t size) noexcept {
    api_ = openssl(reason, size);
    if (api_ == nullptr) {
        errno = ENOENT;
        return -1;
    }
    fd_ = fd;
    api_->ERR_clear_error();
    context_ = api_->SSL_CTX_new(api_->TLS_client_method());
    if (context_ == nullptr) {
        describe_failure("TLS context", reason, size);
        errno = ENOMEM;
        return -1;
    }
    api_->SSL_CTX_ctrl(context_, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_2_VERSION, nullptr);
    // Partial writes are finished by send() itself; a moving buffer is fine
    // because the caller's buffer can be another one on the retry.
    api_->SSL_CTX_ctrl(context_, SSL_CTRL_MODE,
                       SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER,
                       nullptr);
    if (settings.verify) {
        const bool loaded =
            settings.ca_file != nullptr && settings.ca_file[0] != '\0'
                ? api_->SSL_CTX_load_verify_locations(context_, settings.ca_file, nullptr) == 1
                : api_->SSL_CTX_set_default_verify_paths(context_) == 1;
        if (!loaded) {
            format_into(
                reason, size, Overflow::Cut, "CA file %s could not be read",
                settings.ca_file && settings.ca_file[0] ? settings.ca_file : "(system store)");
            api_->ERR_clear_error();
            errno = EIO;
            return -1;
        }
        api_->SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
    } else {
        api_->SSL_CTX_set_verify(context_, SSL_VERIFY_NONE, nullptr);
    }

    ssl_ = api_->SSL_new(context_);
    if (ssl_ == nullptr || api_->SSL_set_fd(ssl_, fd) != 1) {
        describe_failure("TLS session", reason, size);
        errno = ENOMEM;
        return -1;
    }
    const char* name = settings.server_name ? settings.server_name : "";
    if (name[0] != '\0') {
        if (is_address(name)) {
            // Addresses are verified against the certificate's IP entries and
            // never sent as SNI.
            if (settings.verify &&
                api_->X509_VERIFY_PARAM_set1_ip_asc(api_->SSL_get0_param(ssl_), name) != 1) {
                describe_failure("TLS session", reason, size);
                errno = EINVAL;
                return -1;
            }
        } else {
            api_->SSL_ctrl(ssl_, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                           const_cast<char*>(name));
            if (settings.verify && api_->SSL_set1_host(ssl_, name) != 1) {
                describe_failure("TLS session", reason, size);
                errno = EINVAL;
                return -1;
            }
        }
    }

    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        format_into(reason, size, Overflow::Cut, "handshake failed: %s", std::strerror(errno));
        return -1;
    }
    const SigPipeBlocked no_sigpipe;
    const time_t deadline = time(nullptr) + static_cast<time_t>(seconds);
    for (;;) {
        errno = 0;
        const int done = api_->SSL_connect(ssl_);
        if (done == 1) break;
        const int error = api_->SSL_get_error(ssl_, done);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            const int ready = wait_ready(fd, error == SSL_ERROR_WANT_WRITE, deadline);
            if (ready > 0) continue;
            const int saved = ready == 0 ? ETIMEDOUT : errno;
            format_into(reason, size, Overflow::Cut, "handshake failed: %s",
                        ready == 0 ? "timed out" : std::strerror(saved));
            errno = saved;
            return -1;
        }
        describe_failure("handshake failed", reason, size);
        errno = ECONNRESET;
        return -1;
    }
    info_.verified = settings.verify;
    copy_cut(info_.version, sizeof info_.version, api_->SSL_get_version(ssl_));
    const SSL_CIPHER* cipher = api_->SSL_get_current_cipher(ssl_);
    copy_cut(info_.cipher, sizeof info_.cipher,
             cipher != nullptr ? api_->SSL_CIPHER_get_name(cipher) : "");
    return 0;
}

bool TlsSession::pending() const noexcept {
    return offset_ < buffered_ || (ssl_ != nullptr && api_->SSL_pending(ssl_) > 0);
}

ssize_t TlsSession::receive(void* out, size_t length, bool peek, unsigned seconds) noexcept {
    if (ssl_ == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    // The answer waited for may be to what is still gathered here.
    if (flush(seconds) != 0) return -1;
    if (offset_ == buffered_) {
        const SigPipeBlocked no_sigpipe;  // a read may answer a key update
        offset_ = buffered_ = 0;
        for (;;) {
            errno = 0;
            const int got = api_->SSL_read(ssl_, buffer_, static_cast<int>(kBufferSize));
            if (got > 0) {
                buffered_ = static_cast<size_t>(got);
                break;
            }
            const int error = api_->SSL_get_error(ssl_, got);
            if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
                if (wait_for(error, seconds) != 0) return -1;
                continue;
            }
            api_->ERR_clear_error();
            if (error == SSL_ERROR_ZERO_RETURN) return 0;            // close_notify
            if (error == SSL_ERROR_SYSCALL && errno == 0) return 0;  // closed without it
            if (errno == 0 || error == SSL_ERROR_SSL) errno = ECONNRESET;
            return -1;
        }
    }
    const size_t available = buffered_ - offset_;
    const size_t count = length < available ? length : available;
    std::memcpy(out, buffer_ + offset_, count);
    if (!peek) offset_ += count;
    return static_cast<ssize_t>(count);
}

int TlsSession::write_all(const char* bytes, size_t length, unsigned seconds) noexcept {
    const SigPipeBlocked no_sigpipe;
    size_t done = 0;
    while (done < length) {
        const size_t part = length - done < (1u << 30) ? length - done : (1u << 30);
        errno = 0;
        const int sent = api_->SSL_write(ssl_, bytes + done, static_cast<int>(part));
        if (sent > 0) {
            done += static_cast<size_t>(sent);
            continue;
        }
        const int error = api_->SSL_get_error(ssl_, sent);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            if (wait_for(error, seconds) != 0) return -1;
            continue;
        }
        api_->ERR_clear_error();
        if (errno == 0 || error == SSL_ERROR_SSL)
            errno = error == SSL_ERROR_ZERO_RETURN ? EPIPE : ECONNRESET;
        return -1;
    }
    return 0;
}

int TlsSession::flush(unsigned seconds) noexcept {
    if (broken_ != 0) {
        errno = broken_;
        return -1;
    }
    if (out_length_ == 0) return 0;
    const int written = write_all(out_, out_length_, seconds);
    out_length_ = 0;
    if (written != 0) {
        broken_ = errno != 0 ? errno : EIO;
        return -1;
    }
    return 0;
}

ssize_t TlsSession::send(const void* data, size_t length, unsigned seconds) noexcept {
    if (ssl_ == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    if (broken_ != 0) {
        errno = broken_;
        return -1;
    }
    const char* bytes = static_cast<const char*>(data);
    if (length <= kBufferSize - out_length_) {
        std::memcpy(out_ + out_length_, bytes, length);
        out_length_ += length;
        return static_cast<ssize_t>(length);
    }
    if (flush(seconds) != 0) return -1;
    if (length < kBufferSize) {
        std::memcpy(out_, bytes, length);
        out_length_ = length;
        return static_cast<ssize_t>(length);
    }
    if (write_all(bytes, length, seconds) != 0) {
        broken_ = errno != 0 ? errno : EIO;
        return -1;
    }
    return static_cast<ssize_t>(length);
}

void TlsSession::finish() noexcept {
    if (ssl_ == nullptr) return;
    const int saved = errno;
    flush(0);
    const SigPipeBlocked no_sigpipe;
    api_->SSL_shutdown(ssl_);
    api_->ERR_clear_error();
    errno = saved;
}

}  // namespace kemail::tls
