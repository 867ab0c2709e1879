#include "options/options.h"

#include "util/mutex_lock.h"

#include "util/util.h"

#include <strings.h>

#include <array>
#include <cstring>

#include <pthread.h>

namespace kemail::options {
namespace {

enum class Key {
    InputCharset,
    Tls,
    TlsVerify,
    TlsCaFile,
    TlsServerName,
    PopTls,
    AddressFamily,
    Pipelining
};
constexpr size_t kKeyCount = 8;

struct KeyName {
    Key key;
    const char* name;
};
constexpr KeyName kKeys[kKeyCount] = {
    {Key::InputCharset, "INPUT_CHARSET"},    {Key::Tls, "TLS"},
    {Key::TlsVerify, "TLS_VERIFY"},          {Key::TlsCaFile, "TLS_CA_FILE"},
    {Key::TlsServerName, "TLS_SERVER_NAME"}, {Key::PopTls, "POP_TLS"},
    {Key::AddressFamily, "ADDRESS_FAMILY"},  {Key::Pipelining, "PIPELINING"},
};

// A key's value as given: the text of the longest accepted value, a path.
struct Slot {
    bool set = false;
    char value[kCaFileSize] = "";
};
using Layer = std::array<Slot, kKeyCount>;

// Guards both layers: a program may set options from one thread while
// another sends.
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;

Layer g_overrides;
Layer g_file;

bool find_key(const char* name, Key& key) {
    if (name == nullptr) return false;
    for (const KeyName& entry : kKeys) {
        if (std::strcmp(entry.name, name) == 0) {
            key = entry.key;
            return true;
        }
    }
    return false;
}

bool one_of(const char* value, std::initializer_list<const char*> words, size_t& index) {
    size_t i = 0;
    for (const char* word : words) {
        if (strcasecmp(value, word) == 0) {
            index = i;
            return true;
        }
        ++i;
    }
    return false;
}

// A host name to verify and send as SNI: printable ASCII without blanks.
bool acceptable_server_name(const char* value) {
    const size_t length = strnlen(value, kServerNameSize);
    if (length == 0 || length >= kServerNameSize) return false;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(value[i]);
        if (c <= 0x20 || c >= 0x7f) return false;
    }
    return true;
}

// Applies one key's value to settings; false when the value is not accepted.
bool apply(Key key, const char* value, Settings& settings) {
    size_t index = 0;
    switch (key) {
        case Key::InputCharset:
            if (!one_of(value, {"UTF-8", "UTF8"}, index)) return false;
            settings.input_charset = InputCharset::Utf8;
            return true;
        case Key::Tls:
            if (!one_of(value, {"none", "starttls", "smtps"}, index)) return false;
            settings.tls = static_cast<SmtpTls>(index);
            return true;
        case Key::TlsVerify:
            if (!one_of(value, {"0", "1"}, index)) return false;
            settings.tls_verify = index == 1;
            return true;
        case Key::TlsCaFile: {
            const size_t length = strnlen(value, kCaFileSize);
            if (length == 0 || length >= kCaFileSize) return false;
            copy_cut(settings.tls_ca_file, sizeof settings.tls_ca_file, value);
            return true;
        }
        case Key::TlsServerName:
            if (!acceptable_server_name(value)) return false;
            copy_cut(settings.tls_server_name, sizeof settings.tls_server_name, value);
            return true;
        case Key::PopTls:
            if (!one_of(value, {"none", "stls", "pop3s"}, index)) return false;
            settings.pop_tls = static_cast<PopTls>(index);
            return true;
        case Key::AddressFamily:
            if (!one_of(value, {"ipv4", "any"}, index)) return false;
            settings.address_family = static_cast<AddressFamily>(index);
            return true;
        case Key::Pipelining:
            if (!one_of(value, {"0", "1"}, index)) return false;
            settings.pipelining = index == 1;
            return true;
    }
    return false;
}

bool acceptable(Key key, const char* value) {
    Settings scratch;
    return apply(key, value, scratch);
}

void store(Slot& slot, const char* value) {
    slot.set = true;
    copy_cut(slot.value, sizeof slot.value, value);
}

}  // namespace

int set_override(const char* key, const char* value) noexcept {
    Key which{};
    if (!find_key(key, which)) return -1;
    if (value != nullptr && !acceptable(which, value)) return -1;
    const MutexLock guard(g_lock);
    Slot& slot = g_overrides[static_cast<size_t>(which)];
    if (value == nullptr) {
        slot = Slot{};
    } else {
        store(slot, value);
    }
    return 0;
}

void load_from_profile(ProfileHandle* profile) noexcept {
    Layer loaded;
    if (profile != nullptr) {
        for (const KeyName& entry : kKeys) {
            char value[kCaFileSize] = "";
            Com_GetPrivateProfileString(profile, "KEMAIL", entry.name, "", value, sizeof value);
            if (value[0] != '\0' && acceptable(entry.key, value)) {
                store(loaded[static_cast<size_t>(entry.key)], value);
            }
        }
    }
    const MutexLock guard(g_lock);
    g_file = loaded;
}

Settings current() noexcept {
    Settings settings;
    const MutexLock guard(g_lock);
    for (const KeyName& entry : kKeys) {
        const size_t i = static_cast<size_t>(entry.key);
        const Slot& chosen = g_overrides[i].set ? g_overrides[i] : g_file[i];
        if (chosen.set) apply(entry.key, chosen.value, settings);
    }
    return settings;
}

void reset() noexcept {
    const MutexLock guard(g_lock);
    g_overrides = Layer{};
    g_file = Layer{};
}

void hold_for_fork() noexcept { pthread_mutex_lock(&g_lock); }

void release_after_fork() noexcept { pthread_mutex_unlock(&g_lock); }

}  // namespace kemail::options

extern "C" KEMAIL_API int ZvKe_SetOption(const char* key, const char* value) noexcept {
    return kemail::options::set_override(key, value);
}
