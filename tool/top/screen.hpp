// The terminal while "top" has it.
#ifndef ZEVOBW_TOOL_TOP_SCREEN_HPP
#define ZEVOBW_TOOL_TOP_SCREEN_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "top/model.hpp"

struct screen; // of ncurses, whose header defines macros that belong nowhere else

namespace tool {

class TopScreen {
public:
    // Takes over the terminal; the destructor gives it back as it was. Throws Failure without a
    // terminal that can be drawn on.
    TopScreen();
    ~TopScreen();
    TopScreen(const TopScreen &) = delete;
    TopScreen &operator=(const TopScreen &) = delete;

    // Whether it shows more than ASCII, as its locale tells.
    bool ShowsUtf8() const noexcept { return utf8_; }
    std::size_t Rows() const noexcept;
    std::size_t Columns() const noexcept;
    void Draw(const std::vector<TopLine> &lines);

    // Sleeps until a key is pressed, the size changes, a signal asks for the end, or the moment is
    // over. Throws Failure when the terminal is gone.
    void Wait(std::int64_t untilUs);
    // A key that was pressed; nothing when there is no more.
    std::optional<TopKey> NextKey();

private:
    ::screen *screen_ = nullptr;
    bool utf8_ = false;
    bool colors_ = false;
};

} // namespace tool

#endif // ZEVOBW_TOOL_TOP_SCREEN_HPP
