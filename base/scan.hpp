// The place of a word in a long text.
#ifndef BASE_SCAN_HPP
#define BASE_SCAN_HPP

#include <string_view>

namespace zevo {

// Where the word stands first; npos when nowhere. Several times as fast as string_view::find() in
// texts whose letters and digits are everywhere, as those of status files.
size_t FindWord(std::string_view text, std::string_view word) noexcept;

} // namespace zevo

#endif // BASE_SCAN_HPP
