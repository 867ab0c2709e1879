// Settings beyond the designed behaviour: UTF-8 input, TLS, IPv6 and SMTP
// pipelining. Each is off unless named, in section KEMAIL of kemail.ini or
// for one process through ZvKe_SetOption (which wins over the file); with
// none named, every send behaves exactly as designed.
//
// The send reads the file's values first of all (load_from_profile), before
// the request checks, since the subject and text limits count the converted
// bytes; the layers below ask current() for the merged view.
// A value the file gives that is not accepted counts as absent, the way the
// designed keys fall back to their defaults.
#pragma once

#include "kemail.h"
#include "util/paths.h"

#include <cstddef>

namespace kemail::options {

enum class InputCharset { Locale, Utf8 };
enum class SmtpTls { None, StartTls, Smtps };
enum class PopTls { None, Stls, Pop3s };
enum class AddressFamily { Ipv4, Any };

// A host name of at most 255 bytes and its NUL.
constexpr size_t kServerNameSize = 256;
constexpr size_t kCaFileSize = KEMAIL_PATH_MAX + 1;

struct Settings {
    InputCharset input_charset = InputCharset::Locale;
    SmtpTls tls = SmtpTls::None;
    bool tls_verify = true;
    char tls_ca_file[kCaFileSize] = "";          // empty: the system's trust store
    char tls_server_name[kServerNameSize] = "";  // empty: the server argument
    PopTls pop_tls = PopTls::None;
    AddressFamily address_family = AddressFamily::Ipv4;
    bool pipelining = false;
};

// Sets (value non-null) or removes (value null) this process's override of
// one key. Returns 0, or -1 for an unknown key or a value that is not
// accepted; nothing changes then.
int set_override(const char* key, const char* value) noexcept;

// Takes the keys' values from an open kemail.ini; a null profile (no file)
// clears them.
void load_from_profile(ProfileHandle* profile) noexcept;

// The settings in force: each key's override, else the file's value, else
// its default.
Settings current() noexcept;

// Forgets every override and every value read from the file.
void reset() noexcept;

// Hold the settings' lock while the process forks (so that the child does
// not start with it held by a thread it does not have) and release it after,
// in parent and child.
void hold_for_fork() noexcept;
void release_after_fork() noexcept;

}  // namespace kemail::options
