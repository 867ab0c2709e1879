// Joining text in the tools without "literal" + std::string&&, in which
// GCC 12 at -O2 reports a false -Wrestrict overlap.
#pragma once

#include <string>

namespace tools {

// Joins text pieces by appending them in order.
template <typename... Parts>
std::string cat(const Parts&... parts) {
    std::string out;
    ((out += parts), ...);
    return out;
}

}  // namespace tools
