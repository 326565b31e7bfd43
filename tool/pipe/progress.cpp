// One line, drawn over itself. If it does not fit, the name is left out first.
#include "pipe/progress.hpp"

#include <algorithm>
#include <cstdio>
#include <vector>

#include <sys/ioctl.h>
#include <unistd.h>

#include "model/rate.hpp"
#include "output.hpp"

namespace tool {

namespace {

constexpr std::int64_t kRedrawUs = 200'000;
constexpr std::int64_t kMeasureUs = 1'000'000;
constexpr std::size_t kUsualWidth = 80;

std::size_t TerminalWidth()
{
    winsize size = {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) < 0 || size.ws_col == 0) return kUsualWidth;
    return size.ws_col;
}

std::uint32_t Part(std::uint64_t part, std::uint64_t whole)
{
    const double ratio = static_cast<double>(part) / static_cast<double>(whole);
    return static_cast<std::uint32_t>(std::min(ratio, 1.0) * kWhole);
}

std::string Bar(std::uint64_t part, std::uint64_t whole)
{
    constexpr std::uint32_t kColumns = 20;
    const std::size_t filled = Part(part, whole) * kColumns / kWhole;
    return "[" + std::string(filled, '#') + std::string(kColumns - filled, ' ') + "]";
}

} // namespace

Progress::Progress(bool quiet, const std::string &name)
    : name_(AsciiOnly(Printable(name))), active_(!quiet && ::isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    if (!shown_) return;
    Draw(last_);
    std::fputc('\n', stderr);
}

void Progress::Show(const ProgressFigures &figures)
{
    if (!active_) return;
    last_ = figures;
    Measure(figures);
    if (figures.nowUs - drawnUs_ < kRedrawUs) return;
    drawnUs_ = figures.nowUs;
    Draw(figures);
}

void Progress::Measure(const ProgressFigures &figures)
{
    const std::int64_t elapsedUs = figures.nowUs - measuredUs_;
    if (elapsedUs < kMeasureUs) return;
    const double bytes = static_cast<double>(figures.bytes - measuredBytes_);
    if (measuredUs_ != 0)
        speedBps_ = static_cast<std::uint64_t>(bytes * 1e6 / static_cast<double>(elapsedUs));
    measuredUs_ = figures.nowUs;
    measuredBytes_ = figures.bytes;
}

std::string Progress::Compose(const ProgressFigures &figures, std::size_t width) const
{
    std::vector<std::string> parts = {FormatBytes(figures.bytes)};
    parts.push_back(speedBps_ == 0 ? std::string("-") : FormatSpeed(speedBps_));
    if (figures.allowedBps) {
        parts.push_back("of " + FormatAllowedSpeed(*figures.allowedBps));
        if (figures.configuredBps != 0)
            parts.push_back("share " +
                            FormatProgress(Part(*figures.allowedBps, figures.configuredBps)));
    }
    if (figures.size != 0) {
        if (figures.hasBar) parts.insert(parts.begin(), Bar(figures.bytes, figures.size));
        parts.push_back(FormatProgress(Part(figures.bytes, figures.size)));
        const std::uint64_t left = figures.size - std::min(figures.bytes, figures.size);
        if (speedBps_ != 0) parts.push_back(FormatDuration(left / speedBps_) + " left");
    }
    std::string line = parts.front();
    for (std::size_t i = 1; i < parts.size(); ++i)
        if (line.size() + 2 + parts[i].size() < width) line += "  " + parts[i];
    if (!name_.empty() && line.size() + 2 < width)
        line += "  " + name_.substr(0, width - line.size() - 3);
    return line;
}

void Progress::Draw(const ProgressFigures &figures)
{
    shown_ = true;
    const std::string line = Compose(figures, TerminalWidth());
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
}

} // namespace tool
