// Changing the memory copy of a private profile: add, replace or delete an
// entry, or delete a whole section. The file changes only at close.
#include <cstdlib>
#include <cstring>

#include "kemail.h"
#include "profile/profile.h"
#include "util/util.h"

namespace {

using kemail::kProfileNameMax;

constexpr int kDone = 1;     // changed, or nothing to do
constexpr int kRefused = 0;  // refused, or out of memory

constexpr uint32_t kStateModified = 1;
constexpr uint32_t kStateOutOfMemory = 2;

int out_of_memory(ProfileHandle* handle) {
    handle->state = kStateOutOfMemory;
    return kRefused;
}

int changed(ProfileHandle* handle) {
    handle->state = kStateModified;
    return kDone;
}

ProfileEntry* new_entry(const char* key, const char* value) {
    return kemail::new_profile_entry(key, std::strlen(key), value, std::strlen(value));
}

// A new section holding one new entry; null (nothing left allocated) when
// memory runs out.
ProfileSection* new_section_with_entry(const char* name, const char* key, const char* value) {
    ProfileSection* section = kemail::new_profile_section(name, std::strlen(name));
    if (section == nullptr) return nullptr;
    section->entries = new_entry(key, value);
    if (section->entries == nullptr) {
        std::free(section);
        return nullptr;
    }
    return section;
}

template <typename Node>
Node* last_of(Node* first) {
    while (first->next != nullptr) first = first->next;
    return first;
}

}  // namespace

extern "C" {

KEMAIL_API int Com_WritePrivateProfileString(ProfileHandle* pHandle, const char* pszSection,
                                             const char* pszKey, const char* pszValue) noexcept {
    if (pHandle == nullptr || pHandle->flags == 0 || pszSection == nullptr) return kRefused;
    // Names the fields cannot hold are refused rather than cut.
    if (strnlen(pszSection, kProfileNameMax + 1) > kProfileNameMax) return kRefused;
    if (pszKey != nullptr && strnlen(pszKey, kProfileNameMax + 1) > kProfileNameMax) {
        return kRefused;
    }
    const bool adds = pszKey != nullptr && pszValue != nullptr;

    if (pHandle->sections == nullptr) {
        if (!adds) return kDone;
        ProfileSection* section = new_section_with_entry(pszSection, pszKey, pszValue);
        if (section == nullptr) return out_of_memory(pHandle);
        pHandle->sections = section;
        return changed(pHandle);
    }

    ProfileSection* previous_section = nullptr;
    ProfileSection* section = kemail::find_profile_section(pHandle, pszSection, &previous_section);
    if (section == nullptr) {
        if (!adds) return kDone;
        ProfileSection* added = new_section_with_entry(pszSection, pszKey, pszValue);
        if (added == nullptr) return out_of_memory(pHandle);
        last_of(pHandle->sections)->next = added;
        return changed(pHandle);
    }

    if (pszKey == nullptr) {
        // Deletes the whole section (the first of that name).
        if (previous_section == nullptr) {
            pHandle->sections = section->next;
        } else {
            previous_section->next = section->next;
        }
        kemail::free_profile_section(section);
        return changed(pHandle);
    }

    ProfileEntry* previous_entry = nullptr;
    ProfileEntry* entry = kemail::find_profile_entry(section, pszKey, &previous_entry);
    if (entry == nullptr) {
        if (pszValue == nullptr) return kDone;
        ProfileEntry* added = new_entry(pszKey, pszValue);
        if (added == nullptr) return out_of_memory(pHandle);
        if (section->entries == nullptr) {
            section->entries = added;
        } else {
            last_of(section->entries)->next = added;
        }
        return changed(pHandle);
    }

    ProfileEntry** link = previous_entry == nullptr ? &section->entries : &previous_entry->next;
    if (pszValue == nullptr) {
        *link = entry->next;
    } else {
        // The value lives in the entry's own block: a new value means a new entry.
        ProfileEntry* replacement = new_entry(entry->key, pszValue);
        if (replacement == nullptr) return out_of_memory(pHandle);
        replacement->next = entry->next;
        *link = replacement;
    }
    std::free(entry);
    return changed(pHandle);
}

}  // extern "C"
