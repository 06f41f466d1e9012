#pragma once

#include <string>
#include <type_traits>

namespace testing_support {

template <typename Part>
void append(std::string& text, const Part& part) {
    if constexpr (std::is_enum_v<Part>) {
        text += std::to_string(static_cast<std::underlying_type_t<Part>>(part));
    } else if constexpr (std::is_arithmetic_v<Part> && !std::is_same_v<Part, char>) {
        text += std::to_string(part);
    } else {
        text += part;
    }
}

/** The parts, one after the other, as text. */
template <typename... Parts>
std::string cat(const Parts&... parts) {
    std::string text;
    (append(text, parts), ...);
    return text;
}

/** The same with a blank after each. */
template <typename... Parts>
std::string words(const Parts&... parts) {
    return cat(cat(parts, ' ')...);
}

}  // namespace testing_support
