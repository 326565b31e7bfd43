// The transfers that "top" shows, in order, with history; keys and lines.
#include "top/model.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <set>
#include <utility>

#include <zevobandwidth.h>

#include "model/rate.hpp"

namespace tool {

namespace {

constexpr std::int64_t kPaceUs = 60'000'000; // over how long the time left is worked out
constexpr std::int64_t kMessageUs = 10'000'000;
constexpr std::size_t kMaxHistory = 24;
constexpr std::size_t kLeastHistory = 8;
constexpr std::size_t kUsualColumns = 80;
constexpr std::size_t kRowsForGroups = 8; // a lower screen is for the transfers alone
constexpr std::size_t kBarColumns = 20;
constexpr std::uint64_t kLongestSeconds = 100 * 3600;

constexpr std::array kHelp = {
    "Arrows, Page Up/Down, Home, End   select a transfer",
    "s, S   sort by the next, by the previous column;   r   the other way round",
    "/      show only what holds a text (user, protocol, direction, pid, file);",
    "       Enter keeps it, Escape shows all again",
    "x      stop the selected transfer, after a question",
    "q      quit",
    "",
    "SPEED    measured over the last block     ALLOWED  what the limits leave it now",
    "SHARE    ALLOWED of what the user's limits allow one transfer alone",
    "DONE     as its service tells it          LEFT     at the last minute's pace",
    "HISTORY  of the speed; a full bar is what is allowed, or the highest speed seen",
    "Groups: speed charged to the group against its rule that applies at this hour.",
};

std::string DirectionText(std::int32_t direction)
{
    return direction == ZEVO_BW_TRANSFER_UPLOAD ? "up" : "down";
}

std::string LeftText(bool isActive, std::uint64_t seconds)
{
    if (!isActive) return "ending";
    return seconds < kLongestSeconds ? FormatDuration(seconds) : "-";
}

std::string AllowedText(std::uint64_t speedBps)
{
    return speedBps == 0 ? "unlimited" : FormatBytes(speedBps);
}

// In ten-thousandths; nothing without a whole.
std::optional<std::uint64_t> PartOf(std::uint64_t part, std::optional<std::uint64_t> whole)
{
    if (!whole || *whole == 0) return std::nullopt;
    constexpr double kMax = 1e9; // beyond any that is shown
    const double ratio = static_cast<double>(part) / static_cast<double>(*whole) * kWhole;
    return static_cast<std::uint64_t>(std::min(ratio, kMax));
}

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Drops the last character with all its bytes.
void EraseLast(std::string &text)
{
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0U) == 0x80)
        text.pop_back();
    if (!text.empty()) text.pop_back();
}

TopLine PlainLine(const std::string &text, std::size_t columns, std::vector<Color> colors = {})
{
    return {{Fit(text, columns), std::move(colors)}};
}

} // namespace

// A column of the transfers: its cells, and by which order it sorts.
struct TopModel::Column {
    GridColumn look;
    std::string (*text)(const Entry &, const View &);
    bool (*before)(const Entry &, const Entry &); // null: nothing to sort by
};

// In the order of the screen.
const std::vector<TopModel::Column> &TopModel::Columns()
{
    using E = const Entry &;
    using V = const View &;
    using T = TopTransfer;
    static const std::vector<Column> columns = {
        {{"USER", false, 1, {}}, [](E e, V v) { return v.Clean(e.user); }, Less<&T::user>},
        {{"PROTO", false, 6, {}}, [](E e, V v) { return v.Clean(e.service); }, Less<&T::service>},
        {{"DIR", false, 4, {}},
         [](E e, V) { return DirectionText(e.direction); },
         Less<&T::direction>},
        {{"PID", true, 7, {}}, [](E e, V) { return std::to_string(e.pid); }, Less<&T::pid>},
        {{"SPEED/s", true, 0, {Color::kGreen}},
         [](E e, V) { return FormatBytes(e.speedBps); },
         More<&T::speedBps>},
        {{"ALLOWED/s", true, 5, {}},
         [](E e, V) { return AllowedText(e.allowedBps); },
         [](E a, E b) { return ZEVOBandwidthIsLargerThan(a.allowedBps, b.allowedBps) != 0; }},
        {{"SHARE", true, 10, {}},
         [](E e, V) { return e.share ? Percent(*e.share) : "-"; },
         More<&Entry::share>},
        {{"DONE", true, 3, {}}, [](E e, V) { return Percent(e.progress); }, More<&T::progress>},
        {{"LEFT", true, 8, {}},
         [](E e, V) { return LeftText(e.active, e.secondsLeft); },
         Less<&Entry::secondsLeft>},
        {{"HISTORY", true, 9, {Color::kCyan}},
         [](E e, V v) {
             return HistoryGraph(e.track->speeds, e.allowedBps, v.graphColumns, v.utf8);
         },
         nullptr},
        {{"FILE", false, 0, {}, true}, [](E e, V v) { return v.Clean(e.file); }, Less<&T::file>},
    };
    return columns;
}

TopModel::Key TopModel::KeyOf(const TopTransfer &transfer)
{
    return {transfer.uid, transfer.pid, transfer.direction};
}

std::string TopModel::View::Clean(const std::string &text) const
{
    return utf8 ? Printable(text) : AsciiOnly(Printable(text));
}

// ---- figures ----

void TopModel::Update(TopFigures figures)
{
    figures_ = std::move(figures);
    if (figures_.nowUs - saidUs_ > kMessageUs) message_.clear();
    Record();
    Arrange();
}

// Keeps the speeds and the progress of each transfer, and forgets transfers that are gone.
void TopModel::Record()
{
    std::set<Key> present;
    for (const TopTransfer &transfer : figures_.transfers) {
        present.insert(KeyOf(transfer));
        Track &track = tracks_[KeyOf(transfer)];
        track.speeds.push_back(transfer.speedBps);
        if (track.speeds.size() > kMaxHistory) track.speeds.pop_front();
        // Less than before: the process has begun another file.
        if (!track.samples.empty() && transfer.progress < track.samples.back().progress)
            track.samples.clear();
        track.samples.push_back({figures_.nowUs, transfer.progress});
        while (track.samples.front().us < figures_.nowUs - kPaceUs)
            track.samples.pop_front();
    }
    std::erase_if(tracks_, [&](const auto &track) { return !present.contains(track.first); });
}

bool TopModel::Matches(const TopTransfer &transfer) const
{
    const std::string text = view_.Clean(transfer.user) + " " + view_.Clean(transfer.service) +
                             " " + DirectionText(transfer.direction) + " " +
                             std::to_string(transfer.pid) + " " + view_.Clean(transfer.file);
    return Lower(text).find(Lower(filter_)) != std::string::npos;
}

void TopModel::Arrange()
{
    shown_.clear();
    for (const TopTransfer &transfer : figures_.transfers) {
        if (!filter_.empty() && !Matches(transfer)) continue;
        const Track &track = tracks_[KeyOf(transfer)];
        Entry entry{transfer, &track};
        if (transfer.allowedBps != 0) entry.share = PartOf(transfer.allowedBps, transfer.limitBps);
        const Sample &first = track.samples.front();
        if (transfer.progress > first.progress && transfer.progress <= kWhole)
            entry.secondsLeft = static_cast<std::uint64_t>(figures_.nowUs - first.us) *
                                (kWhole - transfer.progress) /
                                (transfer.progress - first.progress) / 1'000'000;
        shown_.push_back(std::move(entry));
    }
    const auto before = Columns()[sortBy_].before;
    std::stable_sort(shown_.begin(), shown_.end(), [&](const Entry &a, const Entry &b) {
        return reversed_ ? before(b, a) : before(a, b);
    });
    FindSelection();
}

// The selection stays with its transfer. When that is gone, the transfer in its place is selected,
// and a question about the old one is withdrawn.
void TopModel::FindSelection()
{
    const auto isSelected = [&](const Entry &e) { return KeyOf(e) == selected_; };
    const auto found = std::find_if(shown_.begin(), shown_.end(), isSelected);
    if (found != shown_.end()) {
        place_ = static_cast<std::size_t>(found - shown_.begin());
        return;
    }
    if (mode_ == Mode::kQuestion) {
        mode_ = Mode::kList;
        Say("That transfer has ended by itself.");
    }
    place_ = shown_.empty() ? 0 : std::min(place_, shown_.size() - 1);
    selected_.reset();
    if (!shown_.empty()) selected_ = KeyOf(shown_[place_]);
}

void TopModel::Say(const std::string &message)
{
    message_ = message;
    saidUs_ = figures_.nowUs;
}

const TopTransfer *TopModel::Selected() const
{
    return shown_.empty() ? nullptr : &shown_[place_];
}

// ---- keys ----

TopAction TopModel::Press(const TopKey &key)
{
    message_.clear();
    switch (mode_) {
    case Mode::kFilter:
        PressInFilter(key);
        return TopAction::kNone;
    case Mode::kQuestion:
        return PressInQuestion(key);
    case Mode::kHelp:
        mode_ = Mode::kList;
        return TopAction::kNone;
    default:
        return PressInList(key);
    }
}

void TopModel::SortByColumnAfter(std::size_t step)
{
    do
        sortBy_ = (sortBy_ + step) % Columns().size();
    while (Columns()[sortBy_].before == nullptr);
    reversed_ = false;
    Arrange();
}

bool TopModel::Move(TopKey::Code code)
{
    const auto page = static_cast<std::ptrdiff_t>(pageRows_);
    const auto all = static_cast<std::ptrdiff_t>(shown_.size());
    const std::map<TopKey::Code, std::ptrdiff_t> steps = {
        {TopKey::kUp, -1},         {TopKey::kDown, 1},    {TopKey::kPageUp, -page},
        {TopKey::kPageDown, page}, {TopKey::kHome, -all}, {TopKey::kEnd, all},
    };
    const auto step = steps.find(code);
    if (step == steps.end()) return false;
    if (all == 0) return true;
    const auto place = static_cast<std::ptrdiff_t>(place_) + step->second;
    place_ = static_cast<std::size_t>(std::clamp<std::ptrdiff_t>(place, 0, all - 1));
    selected_ = KeyOf(shown_[place_]);
    return true;
}

TopAction TopModel::PressInList(const TopKey &key)
{
    if (Move(key.code)) return TopAction::kNone;
    if (key.code == TopKey::kEscape) {
        filter_.clear();
        Arrange();
        return TopAction::kNone;
    }
    if (key.text == "q" || key.text == "Q") return TopAction::kQuit;
    if (key.text == "s") SortByColumnAfter(1);
    if (key.text == "S") SortByColumnAfter(Columns().size() - 1);
    if (key.text == "r") {
        reversed_ = !reversed_;
        Arrange();
    }
    if (key.text == "/") mode_ = Mode::kFilter;
    if (key.text == "?" || key.text == "h") mode_ = Mode::kHelp;
    if (key.text == "x" && Selected() != nullptr) mode_ = Mode::kQuestion;
    return TopAction::kNone;
}

void TopModel::PressInFilter(const TopKey &key)
{
    if (key.code == TopKey::kEnter || key.code == TopKey::kEscape) mode_ = Mode::kList;
    if (key.code == TopKey::kEscape) filter_.clear();
    if (key.code == TopKey::kErase) EraseLast(filter_);
    if (key.code == TopKey::kText) filter_ += view_.Clean(key.text);
    Arrange();
}

TopAction TopModel::PressInQuestion(const TopKey &key)
{
    mode_ = Mode::kList;
    if (key.text == "y" || key.text == "Y") return TopAction::kStop;
    Say("Nothing was stopped.");
    return TopAction::kNone;
}

// ---- lines ----

std::string TopModel::Title() const
{
    std::array<std::uint64_t, 2> sums{};
    for (const TopTransfer &transfer : figures_.transfers)
        sums[transfer.direction == ZEVO_BW_TRANSFER_UPLOAD ? 0 : 1] += transfer.speedBps;
    const std::size_t count = figures_.transfers.size();
    std::string title = figures_.time + "  " + Counted(count, "transfer") + "  up " +
                        FormatSpeed(sums[0]) + "  down " + FormatSpeed(sums[1]);
    if (!filter_.empty())
        title += "  " + std::to_string(shown_.size()) + " with \"" + filter_ + "\"";
    return title;
}

std::string TopModel::Bottom() const
{
    if (mode_ == Mode::kFilter) return "Show only what holds: " + filter_ + "_";
    if (mode_ == Mode::kQuestion) {
        const TopTransfer &transfer = *Selected();
        return "Stop the " + DirectionOf(transfer) + " of " + view_.Clean(transfer.user) +
               ", process " + std::to_string(transfer.pid) + "? (y/n) " +
               view_.Clean(transfer.file);
    }
    if (mode_ == Mode::kHelp) return "Any key goes back.";
    if (!message_.empty()) return view_.Clean(message_);
    if (!figures_.complaint.empty()) return view_.Clean(figures_.complaint);
    return hints_ ? "q quit  s sort  r reverse  / filter  x stop  ? help" : "";
}

// A sentence may take more lines on a narrow screen, up to half of it.
std::vector<TopLine> TopModel::BottomLines(std::size_t rows, std::size_t columns) const
{
    const bool speaks = !message_.empty() || !figures_.complaint.empty();
    const bool isSentence = mode_ == Mode::kQuestion || (mode_ == Mode::kList && speaks);
    std::vector<std::string> texts = {Bottom()};
    if (isSentence) texts = Wrapped(texts.front(), columns);
    texts.resize(std::min({texts.size(), std::max<std::size_t>(rows / 2, 1), rows}));
    std::vector<TopLine> lines;
    lines.reserve(texts.size());
    for (const std::string &text : texts)
        lines.push_back(PlainLine(text, columns, {Color::kDim}));
    return lines;
}

// They take at most a third of the screen.
std::vector<TopLine> TopModel::GroupLines(std::size_t rows, std::size_t columns) const
{
    const std::size_t count = figures_.groups.size();
    if (rows < kRowsForGroups || count == 0) return {};
    const std::size_t most = rows / 3;
    const std::size_t shown = count < most ? count : most - std::min<std::size_t>(most, 2);
    Grid grid({{"GROUP", false, 0, {}},
               {"PROTO", false, 2, {}},
               {"DIR", false, 1, {}},
               {"RUN", true, 4, {}},
               {"SPEED/s", true, 0, {Color::kGreen}},
               {"LIMIT/s", true, 3, {}},
               {"USED", true, 1, {}},
               {"", false, 0, {Color::kCyan}}});
    for (std::size_t i = 0; i < shown; ++i) {
        const TopGroup &group = figures_.groups[i];
        const auto part = PartOf(group.speedBps, group.limitBps);
        grid.AddRow(
            {view_.Clean(group.group), view_.Clean(group.protocol), DirectionText(group.direction),
             std::to_string(group.transfers), FormatBytes(group.speedBps),
             group.limitBps ? AllowedText(*group.limitBps) : "-", part ? Percent(*part) : "-",
             part ? PartBar(*part, kBarColumns, view_.utf8) : ""});
    }
    std::vector<TopLine> lines = grid.Lines(columns);
    if (shown < count)
        lines.push_back(
            PlainLine("and " + std::to_string(count - shown) + " more", columns, {Color::kDim}));
    return lines;
}

std::vector<TopLine> TopModel::TransferLines(std::size_t rows, std::size_t columns)
{
    if (rows == 0) return {};
    std::vector<GridColumn> looks;
    for (const Column &column : Columns())
        looks.push_back(column.look);
    Grid grid(std::move(looks));
    pageRows_ = std::max<std::size_t>(rows - 1, 1);
    firstRow_ = std::min(firstRow_, place_);
    if (place_ >= firstRow_ + pageRows_) firstRow_ = place_ - pageRows_ + 1;
    const std::size_t spare = columns > kUsualColumns ? (columns - kUsualColumns) / 2 : 0;
    view_.graphColumns = std::min(kLeastHistory + spare, kMaxHistory);
    for (std::size_t i = firstRow_; i < std::min(firstRow_ + pageRows_, shown_.size()); ++i) {
        std::vector<Color> look;
        if (!shown_[i].active) look = {Color::kRed};
        if (i == place_) look = {Color::kInverse};
        std::vector<std::string> cells;
        for (const Column &column : Columns())
            cells.push_back(column.text(shown_[i], view_));
        grid.AddRow(std::move(cells), std::move(look));
    }
    std::vector<TopLine> lines = grid.Lines(columns, Columns()[sortBy_].look.title);
    lines.resize(std::min(lines.size(), rows));
    return lines;
}

std::vector<TopLine> TopModel::Compose(std::size_t rows, std::size_t columns)
{
    const std::vector<TopLine> bottom = BottomLines(rows, columns);
    const std::size_t above = rows - bottom.size();
    std::vector<TopLine> lines;
    const auto append = [&](std::vector<TopLine> more) {
        for (TopLine &line : more)
            if (lines.size() < above) lines.push_back(std::move(line));
    };
    append({PlainLine(Title(), columns, {Color::kBold})});
    if (mode_ == Mode::kHelp) {
        for (const char *help : kHelp)
            append({PlainLine(help, columns)});
    } else {
        append(GroupLines(rows, columns));
        if (lines.size() > 1 && rows >= 2 * kRowsForGroups) append({PlainLine("", columns)});
        append(TransferLines(above - lines.size(), columns));
        if (shown_.empty())
            append({PlainLine(filter_.empty() ? "No limited transfers are running."
                                              : "No transfer holds that text.",
                              columns)});
    }
    lines.resize(above, PlainLine("", columns));
    lines.insert(lines.end(), bottom.begin(), bottom.end());
    return lines;
}

} // namespace tool
