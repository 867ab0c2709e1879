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

namespace {

// The first node of a list whose name field equals name; *previous (when
// given) receives the node before it.
template <typename Node, size_t Size>
Node* find_first(Node* head, char (Node::*field)[Size], const char* name, Node** previous) {
    Node* before = nullptr;
    for (Node* node = head; node != nullptr; before = node, node = node->next) {
        if (std::strcmp(node->*field, name) == 0) {
            if (previous != nullptr) *previous = before;
            return node;
        }
    }
    return nullptr;
}

}  // namespace

ProfileSection* find_profile_section(const ProfileHandle* handle, const char* name,
                                     ProfileSection** previous) {
    return find_first(handle->sections, &ProfileSection::name, name, previous);
}

ProfileEntry* find_profile_entry(const ProfileSection* section, const char* key,
                                 ProfileEntry** previous) {
    return find_first(section->entries, &ProfileEntry::key, key, previous);
}

}  // namespace kemail
