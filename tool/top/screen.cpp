// The terminal through ncurses. Every text that comes here is printable.
#include "top/screen.hpp"

#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "failure.hpp"
#include "pipe/signal.hpp"

#define NCURSES_NOMACROS 1
#include <curses.h>

namespace tool {

namespace {

constexpr int kEscapeDelayMs = 50; // how long an escape may be the start of another key
constexpr short kDefaultColor = -1;

// In the order of Color.
struct Look {
    attr_t attribute;
    short color; // kDefaultColor: none
};
constexpr std::array kLooks = {
    Look{A_BOLD, kDefaultColor},  Look{A_DIM, kDefaultColor},    Look{0, COLOR_RED},
    Look{0, COLOR_GREEN},         Look{0, COLOR_YELLOW},         Look{0, COLOR_BLUE},
    Look{0, COLOR_MAGENTA},       Look{0, COLOR_CYAN},           Look{A_REVERSE, kDefaultColor},
    Look{A_REVERSE, COLOR_GREEN}, Look{A_REVERSE, COLOR_YELLOW},
};

short PairOf(short color)
{
    return static_cast<short>(color + 1);
}

// Only where both can be had: a background of our own would be wrong on half of all terminals.
bool StartColors()
{
    if (!UsesColor() || !::has_colors() || ::start_color() == ERR) return false;
    if (::use_default_colors() == ERR) return false;
    for (const Look &look : kLooks)
        if (look.color != kDefaultColor) ::init_pair(PairOf(look.color), look.color, kDefaultColor);
    return true;
}

attr_t AttributesOf(const std::vector<Color> &colors, bool inColor)
{
    attr_t attributes = 0;
    for (const Color color : colors) {
        const Look &look = kLooks[static_cast<std::size_t>(color)];
        attributes |= look.attribute;
        if (inColor && look.color != kDefaultColor)
            attributes |= static_cast<attr_t>(COLOR_PAIR(PairOf(look.color)));
    }
    return attributes;
}

struct NamedKey {
    wint_t code;
    TopKey::Code key;
};
constexpr std::array kFunctionKeys = {
    NamedKey{KEY_UP, TopKey::kUp},        NamedKey{KEY_DOWN, TopKey::kDown},
    NamedKey{KEY_PPAGE, TopKey::kPageUp}, NamedKey{KEY_NPAGE, TopKey::kPageDown},
    NamedKey{KEY_HOME, TopKey::kHome},    NamedKey{KEY_END, TopKey::kEnd},
    NamedKey{KEY_ENTER, TopKey::kEnter},  NamedKey{KEY_BACKSPACE, TopKey::kErase},
};
constexpr std::array kControlKeys = {
    NamedKey{L'\n', TopKey::kEnter}, NamedKey{L'\r', TopKey::kEnter},
    NamedKey{0x1B, TopKey::kEscape}, NamedKey{0x08, TopKey::kErase},
    NamedKey{0x7F, TopKey::kErase},
};

template <std::size_t N>
std::optional<TopKey> FindKey(const std::array<NamedKey, N> &keys, wint_t code)
{
    for (const NamedKey &key : keys)
        if (key.code == code) return TopKey{key.key, ""};
    return std::nullopt;
}

std::string ToText(wint_t character)
{
    std::array<char, MB_LEN_MAX> bytes{};
    std::mbstate_t state{};
    const std::size_t count = std::wcrtomb(bytes.data(), static_cast<wchar_t>(character), &state);
    return count > bytes.size() ? "" : std::string(bytes.data(), count);
}

} // namespace

TopScreen::TopScreen()
{
    if (!ControlsTerminal() || ::isatty(STDIN_FILENO) != 1)
        throw Failure(kFailed, "top needs a terminal to draw on; elsewhere 'zevobandwidth "
                               "transfers --watch' shows the same as plain text");
    // Characters only: numbers keep their decimal point.
    std::setlocale(LC_CTYPE, "");
    utf8_ = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
    ::use_tioctl(true); // the size that the terminal has, whatever LINES and COLUMNS say
    screen_ = ::newterm(nullptr, stdout, stdin);
    const char *const szType = std::getenv("TERM");
    if (screen_ == nullptr)
        throw Failure(kFailed, "the terminal type \"" + std::string(szType ? szType : "") +
                                   "\" is not known here; set TERM to one that is, such as xterm");
    ::set_escdelay(kEscapeDelayMs);
    ::cbreak();
    ::noecho();
    ::curs_set(0);
    ::keypad(stdscr, true);
    ::nodelay(stdscr, true);
    colors_ = StartColors();
}

TopScreen::~TopScreen()
{
    ::endwin();
    ::delscreen(screen_);
}

std::size_t TopScreen::Rows() const noexcept
{
    return static_cast<std::size_t>(LINES);
}

std::size_t TopScreen::Columns() const noexcept
{
    return static_cast<std::size_t>(COLS);
}

void TopScreen::Draw(const std::vector<TopLine> &lines)
{
    ::werase(stdscr);
    for (std::size_t row = 0; row < lines.size(); ++row) {
        ::wmove(stdscr, static_cast<int>(row), 0);
        for (const TopSpan &span : lines[row]) {
            ::wattrset(stdscr, static_cast<int>(AttributesOf(span.colors, colors_)));
            // Fails in the last cell of the screen, whose cursor has nowhere to go.
            static_cast<void>(::waddnstr(stdscr, span.text.c_str(), -1));
        }
    }
    ::wattrset(stdscr, A_NORMAL);
    ::wrefresh(stdscr);
}

void TopScreen::Wait(std::int64_t untilUs)
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    if (WaitReady(&input, 1, untilUs) > 0 && (input.revents & ~POLLIN) != 0)
        throw Failure(kFailed, "the terminal is gone");
}

std::optional<TopKey> TopScreen::NextKey()
{
    for (;;) {
        wint_t code = 0;
        const int kind = ::wget_wch(stdscr, &code);
        if (kind == ERR) return std::nullopt;
        if (kind == KEY_CODE_YES) {
            if (auto key = FindKey(kFunctionKeys, code)) return key;
            continue; // a new size, which the next drawing finds, or a key without meaning
        }
        if (auto key = FindKey(kControlKeys, code)) return key;
        if (code >= 0x20) return TopKey{TopKey::kText, ToText(code)};
    }
}

} // namespace tool
