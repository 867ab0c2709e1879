// Opening a private profile: the whole file is parsed into memory.
//
// Line syntax (nothing is ever trimmed around keys and values):
//   blank line, or only spaces, or spaces then ';'   comment
//   spaces then '[' name ']' anything                 section "name"
//   key '=' value  (the '=' not the first byte)       entry; the key keeps its leading spaces
//   anything else                                     ignored, as are entries before any section
#include <cstdio>
#include <cstring>

#include "kemail.h"
#include "profile/profile.h"
#include "util/unique_fd.h"
#include "util/util.h"

namespace {

using kemail::kProfileNameMax;

// One fgets of this size is one line: 1024 bytes and the NUL. A longer line
// is split there and its rest is parsed as a line of its own.
constexpr int kLineBufferSize = 1025;

class ProfileBuilder {
public:
    explicit ProfileBuilder(ProfileHandle* handle) : handle_(handle) {}

    // Adds what one line of the file declares. False when memory ran out.
    bool add_line(char* line, int* error_slot) {
        line[std::strcspn(line, "\r")] = '\0';
        line[std::strcspn(line, "\n")] = '\0';

        // Only spaces are skipped here: a tab before ';' makes the line no
        // comment, and it is then an entry if it holds a '='.
        const char* text = line;
        while (*text == ' ') ++text;
        if (*text == '\0' || *text == ';') return true;

        if (*text == '[') {
            const char* name = text + 1;
            const char* close = std::strchr(name, ']');
            if (close == nullptr) return true;
            return open_section(name, static_cast<size_t>(close - name), error_slot);
        }

        const char* equals = std::strchr(line, '=');
        if (equals == nullptr || equals == line) return true;
        return add_entry(line, static_cast<size_t>(equals - line), equals + 1);
    }

private:
    bool open_section(const char* name, size_t length, int* error_slot) {
        if (length > kProfileNameMax) {
            // Refused with its entries, so they are not filed under the
            // section before it.
            current_ = nullptr;
            return true;
        }
        ProfileSection* section = kemail::new_profile_section(name, length);
        if (section == nullptr) {
            if (error_slot != nullptr) *error_slot = errno;
            return false;
        }
        if (last_section_ == nullptr) {
            handle_->sections = section;
        } else {
            last_section_->next = section;
        }
        last_section_ = section;
        current_ = section;
        last_entry_ = nullptr;
        return true;
    }

    bool add_entry(const char* key, size_t key_length, const char* value) {
        if (current_ == nullptr || key_length > kProfileNameMax) return true;
        ProfileEntry* entry = kemail::new_profile_entry(key, key_length, value, std::strlen(value));
        // Kept: unlike a failed section, a failed entry leaves the error slot
        // untouched (test OutOfMemory.FailedEntryLeavesTheErrorSlot).
        if (entry == nullptr) return false;
        if (last_entry_ == nullptr) {
            current_->entries = entry;
        } else {
            last_entry_->next = entry;
        }
        last_entry_ = entry;
        return true;
    }

    ProfileHandle* handle_;
    ProfileSection* last_section_ = nullptr;
    ProfileSection* current_ = nullptr;   // receives entries; null before the first section
    ProfileEntry* last_entry_ = nullptr;  // last entry of current_
};

}  // namespace

extern "C" {

KEMAIL_API ProfileHandle* Com_OpenPrivateProfile(const char* pszPath,
                                                 unsigned int ulFlags) noexcept {
    return Com_OpenPrivateProfile2(pszPath, ulFlags, nullptr);
}

KEMAIL_API ProfileHandle* Com_OpenPrivateProfile2(const char* pszPath, unsigned int ulFlags,
                                                  int* plErr) noexcept {
    auto* handle = static_cast<ProfileHandle*>(kemail::util_malloc(sizeof(ProfileHandle)));
    if (handle == nullptr) {
        if (plErr != nullptr) *plErr = errno;
        return nullptr;
    }
    std::memset(handle, 0, sizeof *handle);
    handle->flags = ulFlags;

    // A file that can't be read is an empty profile: every look-up gives its default.
    if (pszPath == nullptr) return handle;
    const kemail::UniqueFile file(std::fopen(pszPath, "re"));
    if (!file) return handle;

    ProfileBuilder builder(handle);
    char line[kLineBufferSize];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (!builder.add_line(line, plErr)) {
            kemail::free_profile(handle);
            return nullptr;
        }
    }
    return handle;
}

}  // extern "C"
