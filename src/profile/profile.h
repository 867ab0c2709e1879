// The in-memory copy of a private profile (ini file): a list of sections in
// file order, each with its entries in file order. Duplicates are kept as
// they stand and every look-up finds the first match (exact, case-sensitive).
//
// Names longer than the 67 bytes a section name or key field holds are
// refused, never cut: a cut name would silently alias a shorter one. A file
// line with such a name is skipped (for a section line, with all the entries
// under it); a look-up with one finds nothing; a write with one is refused.
#pragma once

#include <cstddef>

#include "kemail.h"

namespace kemail {

// Longest section name or key: the zero-filled name fields hold it and a NUL.
constexpr size_t kProfileNameMax = KEMAIL_PROFILE_NAME_SIZE - 1;

// A new zeroed section holding a copy of name[0..length), or null when no
// memory is left. length must not exceed kProfileNameMax.
ProfileSection* new_profile_section(const char* name, size_t length);

// A new entry, key zero-filled, its value allocated with it at its exact
// length; null when no memory is left. key_length must not exceed
// kProfileNameMax.
ProfileEntry* new_profile_entry(const char* key, size_t key_length, const char* value,
                                size_t value_length);

// Frees a section with every one of its entries.
void free_profile_section(ProfileSection* section);

// Frees every entry of every section, every section and the handle.
void free_profile(ProfileHandle* handle);

// The first section named name, or null. *previous (when given) receives the
// section before it (null for the first section).
ProfileSection* find_profile_section(const ProfileHandle* handle, const char* name,
                                     ProfileSection** previous);

// The first entry of section keyed key, or null; *previous as above.
ProfileEntry* find_profile_entry(const ProfileSection* section, const char* key,
                                 ProfileEntry** previous);

}  // namespace kemail
