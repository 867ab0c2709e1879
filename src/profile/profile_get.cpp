// Look-ups in an open private profile.
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "kemail.h"
#include "profile/profile.h"
#include "util/util.h"
#include "util/format.h"

namespace {

// Room for any int in decimal and its NUL; the integer look-up reads at most
// 11 characters of the value.
constexpr size_t kIntTextSize = 12;
// Room for the longest value a file line can carry and its NUL.
constexpr size_t kHexTextSize = 1025;

}  // namespace

extern "C" {

KEMAIL_API int Com_GetPrivateProfileString(ProfileHandle* pHandle, const char* pszSection,
                                           const char* pszKey, const char* pszDefault, char* pszOut,
                                           unsigned int ulSize) noexcept {
    if (pHandle == nullptr) return -1;
    const char* text = pszDefault != nullptr ? pszDefault : "";
    if (pszSection != nullptr && pszKey != nullptr) {
        const ProfileSection* section = kemail::find_profile_section(pHandle, pszSection, nullptr);
        const ProfileEntry* entry =
            section != nullptr ? kemail::find_profile_entry(section, pszKey, nullptr) : nullptr;
        if (entry != nullptr) text = entry->value;
    }
    return static_cast<int>(kemail::copy_cut(pszOut, ulSize, text));
}

KEMAIL_API int Com_GetPrivateProfileInt(ProfileHandle* pHandle, const char* pszSection,
                                        const char* pszKey, int lDefault,
                                        const char* /*pszPath*/) noexcept {
    if (pHandle == nullptr) return 0;
    // Kept: a negative default is looked up as "0", so a missing key yields
    // 0, while a key with an empty value yields the default as given
    // (test ProfileRead.IntMissingKeyEmptyValueAndTrailingText).
    char default_text[kIntTextSize];
    kemail::format_into(default_text, sizeof default_text, kemail::Overflow::Cut, "%d",
                        lDefault < 0 ? 0 : lDefault);
    char value[kIntTextSize] = {};
    Com_GetPrivateProfileString(pHandle, pszSection, pszKey, default_text, value, sizeof value);
    if (value[0] == '\0') return lDefault;
    // atoi's value (leading digits, 0 for none) without its undefined overflow.
    return static_cast<int>(std::strtol(value, nullptr, 10));
}

KEMAIL_API unsigned int Com_GetPrivateProfileIntHex(ProfileHandle* pHandle, const char* pszSection,
                                                    const char* pszKey, unsigned int ulDefault,
                                                    const char* /*pszPath*/) noexcept {
    char text[kHexTextSize] = {};
    if (Com_GetPrivateProfileString(pHandle, pszSection, pszKey, "", text, sizeof text) < 0 ||
        text[0] == '\0') {
        return ulDefault;
    }
    // Only a lower-case "0x" is a prefix; "0X1F" is no number and gives the default.
    const char* digits = text;
    if (std::strlen(text) > 1 && text[0] == '0' && text[1] == 'x') digits += 2;
    for (const char* p = digits; *p != '\0'; ++p) {
        if (!std::isxdigit(static_cast<unsigned char>(*p))) return ulDefault;
    }
    // The value sscanf("%x") stores (too many digits give 0xFFFFFFFF or the
    // low 32 bits), without its undefined overflow. "0x" alone gives 0.
    return static_cast<unsigned int>(std::strtoul(digits, nullptr, 16));
}

}  // extern "C"
