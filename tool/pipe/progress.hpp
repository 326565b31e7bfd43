// The line a person sees on the terminal while a transfer runs.
#ifndef ZEVOBW_TOOL_PIPE_PROGRESS_HPP
#define ZEVOBW_TOOL_PIPE_PROGRESS_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

struct ProgressFigures {
    std::uint64_t bytes = 0;                 // that have gone out
    std::uint64_t size = 0;                  // that are expected, 0 when not known
    std::optional<std::uint64_t> allowedBps; // 0 unlimited; nothing when not known
    std::uint64_t configuredBps = 0;         // what this user's rules allow one transfer alone
    bool hasBar = false; // of the part that has gone out, where the size is known
    std::int64_t nowUs = 0;
};

class Progress {
public:
    // Shows nothing when quiet or when standard error is no terminal.
    Progress(bool quiet, const std::string &name);
    ~Progress(); // leaves the last line standing
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // Whether there is anybody to see it.
    bool IsActive() const noexcept { return active_; }

    // At most five times a second.
    void Show(const ProgressFigures &figures);

private:
    void Measure(const ProgressFigures &figures);
    std::string Compose(const ProgressFigures &figures, std::size_t width) const;
    void Draw(const ProgressFigures &figures);

    bool shown_ = false;
    const std::string name_; // ASCII only, so that a byte is a column
    ProgressFigures last_;
    std::int64_t drawnUs_ = 0;
    std::int64_t measuredUs_ = 0; // when the speed was last measured, over which bytes
    std::uint64_t measuredBytes_ = 0;
    std::uint64_t speedBps_ = 0;
    bool active_ = false;
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_PROGRESS_HPP
