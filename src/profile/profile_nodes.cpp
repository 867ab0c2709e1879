#include <cstdlib>
#include <cstring>

#include "profile/profile.h"
#include "util/util.h"

namespace kemail {

ProfileSection* new_profile_section(const char* name, size_t length) {
    auto* section = static_cast<ProfileSection*>(util_malloc(sizeof(ProfileSection)));
    if (section == nullptr) return nullptr;
    std::memset(section, 0, sizeof *section);
    std::memcpy(section->name, name, length);
    return section;
}

ProfileEntry* new_profile_entry(const char* key, size_t key_length, const char* value,
                                size_t value_length) {
    auto* entry = static_cast<ProfileEntry*>(util_malloc(sizeof(ProfileEntry) + value_length + 1));
    if (entry == nullptr) return nullptr;
    std::memset(entry, 0, sizeof *entry);
    std::memcpy(entry->key, key, key_length);
    entry->value = reinterpret_cast<char*>(entry + 1);
    std::memcpy(entry->value, value, value_length);
    entry->value[value_length] = '\0';
    return entry;
}

void free_profile_section(ProfileSection* section) {
    ProfileEntry* entry = section->entries;
    while (entry != nullptr) {
        ProfileEntry* next = entry->next;
        std::free(entry);
        entry = next;
    }
    std::free(section);
}

void free_profile(ProfileHandle* handle) {
    ProfileSection* section = handle->sections;
    while (section != nullptr) {
        ProfileSection* next = section->next;
        free_profile_section(section);
        section = next;
    }
    std::free(handle);
}

ProfileSection* find_profile_section(const ProfileHandle* handle, const char* name,
                                     ProfileSection** previous) {
    ProfileSection* before = nullptr;
    for (ProfileSection* section = handle->sections; section != nullptr;
         before = section, section = section->next) {
        if (std::strcmp(section->name, name) == 0) {
            if (previous != nullptr) *previous = before;
            return section;
        }
    }
    return nullptr;
}

ProfileEntry* find_profile_entry(const ProfileSection* section, const char* key,
                                 ProfileEntry** previous) {
    ProfileEntry* before = nullptr;
    for (ProfileEntry* entry = section->entries; entry != nullptr;
         before = entry, entry = entry->next) {
        if (std::strcmp(entry->key, key) == 0) {
            if (previous != nullptr) *previous = before;
            return entry;
        }
    }
    return nullptr;
}

}  // namespace kemail
