// Masks for what changes from one composition of a mail to the next, so that
// two sends' messages compare byte for byte.
#pragma once

#include <string>
#include <utility>

namespace kemail_test {

// Replaces what follows each occurrence of prefix, up to (not including) the
// next terminator, by replacement.
inline std::string mask_after(std::string data, const std::string& prefix,
                              const std::string& terminator, const std::string& replacement) {
    for (size_t at = data.find(prefix); at != std::string::npos;
         at = data.find(prefix, at + prefix.size() + replacement.size())) {
        const size_t start = at + prefix.size();
        const size_t end = data.find(terminator, start);
        if (end == std::string::npos) break;
        data.replace(start, end - start, replacement);
    }
    return data;
}

// The Date and Message-Id header values, the multipart boundary's time and
// the partial id.
inline std::string mask_variable(std::string data) {
    data = mask_after(std::move(data), "Date: ", "\r\n", "<date>");
    data = mask_after(std::move(data), "Message-Id: <", ">\r\n", "id");
    for (size_t at = data.find("ZvLunt"); at != std::string::npos;
         at = data.find("ZvLunt", at + 6)) {
        const std::string digits = data.substr(at + 6, 10);  // the time in the boundary
        if (digits.size() == 10 && digits.find_first_not_of("0123456789") == std::string::npos)
            data.replace(at + 6, 10, "<time>");
    }
    return mask_after(std::move(data), "\tid=\"", "\"", "<partial-id>");
}

}  // namespace kemail_test
