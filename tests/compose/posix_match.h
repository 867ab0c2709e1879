// Pattern checks with the C library's POSIX extended regular expressions
// (std::regex trips GCC 12's maybe-uninitialized warning in sanitizer builds).
#pragma once

#include <regex.h>

#include <string>
#include <vector>

namespace compose_test {

// True when the whole text matches the extended pattern; groups (if given)
// receives the whole match and every parenthesised group.
inline bool matches(const std::string& text, const std::string& pattern,
                    std::vector<std::string>* groups = nullptr) {
    regex_t re;
    if (regcomp(&re, ("^(" + pattern + ")$").c_str(), REG_EXTENDED) != 0) return false;
    std::vector<regmatch_t> m(re.re_nsub + 1);
    const bool ok = regexec(&re, text.c_str(), m.size(), m.data(), 0) == 0;
    if (ok && groups) {
        groups->clear();
        // Group 1 is the added outer group: report the pattern's own groups.
        for (size_t i = 1; i < m.size(); ++i) {
            groups->push_back(m[i].rm_so < 0 ? std::string()
                                             : text.substr(m[i].rm_so, m[i].rm_eo - m[i].rm_so));
        }
    }
    regfree(&re);
    return ok;
}

// Replaces every match of the extended pattern by the replacement text.
inline std::string replace_all(const std::string& text, const std::string& pattern,
                               const std::string& replacement) {
    regex_t re;
    if (regcomp(&re, pattern.c_str(), REG_EXTENDED) != 0) return text;
    std::string out;
    size_t at = 0;
    regmatch_t m;
    while (at <= text.size() && regexec(&re, text.c_str() + at, 1, &m, at ? REG_NOTBOL : 0) == 0 &&
           m.rm_eo > m.rm_so) {
        out += text.substr(at, m.rm_so) + replacement;
        at += m.rm_eo;
    }
    out += text.substr(at);
    regfree(&re);
    return out;
}

}  // namespace compose_test
