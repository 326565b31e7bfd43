// Numbers in texts.
#ifndef ZEVOBW_TOOL_MODEL_NUMBER_HPP
#define ZEVOBW_TOOL_MODEL_NUMBER_HPP

#include <charconv>
#include <optional>
#include <string_view>

namespace tool {

// The number that the whole text is; nothing for any other text.
template <typename Number> std::optional<Number> ReadNumber(std::string_view text)
{
    Number number = 0;
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return number;
}

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_NUMBER_HPP
