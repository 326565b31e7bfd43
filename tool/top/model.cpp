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

constexpr const char *kSpeedTitle = "SPEED/s";
constexpr const char *kAllowedTitle = "ALLOWED/s";
constexpr const char *kShareTitle = "SHARE";
constexpr const char *kDoneTitle = "DONE";
constexpr const char *kLeftTitle = "LEFT";
constexpr const char *kUserTitle = "USER";
constexpr const char *kProtocolTitle = "PROTO";
constexpr const char *kDirectionTitle = "DIR";
constexpr const char *kPidTitle = "PID";
constexpr const char *kFileTitle = "FILE";

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

// A column to sort by: which of two comes first.
struct TopModel::Order {
    const char *title;
    bool (*before)(const Entry &, const Entry &);
};

const std::vector<TopModel::Order> &TopModel::Orders()
{
    using E = Entry;
    static const std::vector<Order> orders = {
        {kSpeedTitle,
         [](const E &a, const E &b) { return a.transfer->speedBps > b.transfer->speedBps; }},
        {kAllowedTitle,
         [](const E &a, const E &b) {
             return ZEVOBandwidthIsLargerThan(a.transfer->allowedBps, b.transfer->allowedBps) != 0;
         }},
        {kShareTitle,
         [](const E &a, const E &b) { return a.share.value_or(0) > b.share.value_or(0); }},
        {kDoneTitle,
         [](const E &a, const E &b) { return a.transfer->progress > b.transfer->progress; }},
        {kLeftTitle,
         [](const E &a, const E &b) {
             return a.secondsLeft.value_or(UINT64_MAX) < b.secondsLeft.value_or(UINT64_MAX);
         }},
        {kFileTitle, [](const E &a, const E &b) { return a.transfer->file < b.transfer->file; }},
        {kUserTitle, [](const E &a, const E &b) { return a.transfer->user < b.transfer->user; }},
        {kProtocolTitle,
         [](const E &a, const E &b) { return a.transfer->protocol < b.transfer->protocol; }},
        {kDirectionTitle,
         [](const E &a, const E &b) { return a.transfer->direction < b.transfer->direction; }},
        {kPidTitle, [](const E &a, const E &b) { return a.transfer->pid < b.transfer->pid; }},
    };
    return orders;
}

TopModel::Key TopModel::KeyOf(const TopTransfer &transfer)
{
    return {transfer.uid, transfer.pid, transfer.direction};
}

std::string TopModel::Clean(const std::string &text) const
{
    return utf8_ ? Printable(text) : AsciiOnly(Printable(text));
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
    const std::string text = Clean(transfer.user) + " " + Clean(transfer.protocol) + " " +
                             DirectionText(transfer.direction) + " " +
                             std::to_string(transfer.pid) + " " + Clean(transfer.file);
    return Lower(text).find(Lower(filter_)) != std::string::npos;
}

void TopModel::Arrange()
{
    shown_.clear();
    for (const TopTransfer &transfer : figures_.transfers) {
        if (!filter_.empty() && !Matches(transfer)) continue;
        const Track &track = tracks_[KeyOf(transfer)];
        Entry entry{&transfer, &track, {}, {}};
        if (transfer.allowedBps != 0) entry.share = PartOf(transfer.allowedBps, transfer.limitBps);
        const Sample &first = track.samples.front();
        if (transfer.progress > first.progress && transfer.progress <= kWhole)
            entry.secondsLeft = static_cast<std::uint64_t>(figures_.nowUs - first.us) *
                                (kWhole - transfer.progress) /
                                (transfer.progress - first.progress) / 1'000'000;
        shown_.push_back(entry);
    }
    const auto before = Orders()[sortBy_].before;
    std::stable_sort(shown_.begin(), shown_.end(), [&](const Entry &a, const Entry &b) {
        return reversed_ ? before(b, a) : before(a, b);
    });
    FindSelection();
}

// The selection stays with its transfer. When that is gone, the transfer in its place is selected,
// and a question about the old one is withdrawn.
void TopModel::FindSelection()
{
    const auto isSelected = [&](const Entry &e) { return KeyOf(*e.transfer) == selected_; };
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
    if (!shown_.empty()) selected_ = KeyOf(*shown_[place_].transfer);
}

void TopModel::Say(const std::string &message)
{
    message_ = message;
    saidUs_ = figures_.nowUs;
}

const TopTransfer *TopModel::Selected() const
{
    return shown_.empty() ? nullptr : shown_[place_].transfer;
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

void TopModel::SortBy(std::size_t order)
{
    sortBy_ = order % Orders().size();
    reversed_ = false;
    Arrange();
}

bool TopModel::Move(TopKey::Code code)
{
    const std::size_t last = shown_.empty() ? 0 : shown_.size() - 1;
    switch (code) {
    case TopKey::kUp:
        place_ -= std::min<std::size_t>(place_, 1);
        break;
    case TopKey::kDown:
        place_ += 1;
        break;
    case TopKey::kPageUp:
        place_ -= std::min(place_, pageRows_);
        break;
    case TopKey::kPageDown:
        place_ += pageRows_;
        break;
    case TopKey::kHome:
        place_ = 0;
        break;
    case TopKey::kEnd:
        place_ = last;
        break;
    default:
        return false;
    }
    place_ = std::min(place_, last);
    if (!shown_.empty()) selected_ = KeyOf(*shown_[place_].transfer);
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
    if (key.text == "s") SortBy(sortBy_ + 1);
    if (key.text == "S") SortBy(sortBy_ + Orders().size() - 1);
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
    if (key.code == TopKey::kText) filter_ += Clean(key.text);
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
        const bool isUpload = transfer.direction == ZEVO_BW_TRANSFER_UPLOAD;
        return std::string("Stop the ") + (isUpload ? "upload" : "download") + " of " +
               Clean(transfer.user) + ", process " + std::to_string(transfer.pid) + "? (y/n) " +
               Clean(transfer.file);
    }
    if (mode_ == Mode::kHelp) return "Any key goes back.";
    if (!message_.empty()) return Clean(message_);
    if (!figures_.complaint.empty()) return Clean(figures_.complaint);
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
               {kProtocolTitle, false, 2, {}},
               {kDirectionTitle, false, 1, {}},
               {"RUN", true, 4, {}},
               {kSpeedTitle, true, 0, {Color::kGreen}},
               {"LIMIT/s", true, 3, {}},
               {"USED", true, 1, {}},
               {"", false, 0, {Color::kCyan}}});
    for (std::size_t i = 0; i < shown; ++i) {
        const TopGroup &group = figures_.groups[i];
        const auto part = PartOf(group.speedBps, group.limitBps);
        grid.AddRow({Clean(group.group), Clean(group.protocol), DirectionText(group.direction),
                     std::to_string(group.transfers), FormatBytes(group.speedBps),
                     group.limitBps ? AllowedText(*group.limitBps) : "-",
                     part ? Percent(*part) : "-", part ? PartBar(*part, kBarColumns, utf8_) : ""});
    }
    std::vector<TopLine> lines = grid.Lines(columns);
    if (shown < count)
        lines.push_back(
            PlainLine("and " + std::to_string(count - shown) + " more", columns, {Color::kDim}));
    return lines;
}

std::vector<std::string> TopModel::Cells(const Entry &entry, std::size_t graphColumns) const
{
    const TopTransfer &transfer = *entry.transfer;
    std::string left = "-";
    if (entry.secondsLeft && *entry.secondsLeft < kLongestSeconds)
        left = FormatDuration(*entry.secondsLeft);
    if (!transfer.active) left = "ending";
    return {Clean(transfer.user),
            Clean(transfer.protocol),
            DirectionText(transfer.direction),
            std::to_string(transfer.pid),
            FormatBytes(transfer.speedBps),
            AllowedText(transfer.allowedBps),
            entry.share ? Percent(*entry.share) : "-",
            Percent(transfer.progress),
            left,
            HistoryGraph(entry.track->speeds, transfer.allowedBps, graphColumns, utf8_),
            Clean(transfer.file)};
}

std::vector<TopLine> TopModel::TransferLines(std::size_t rows, std::size_t columns)
{
    if (rows == 0) return {};
    Grid grid({{kUserTitle, false, 1, {}},
               {kProtocolTitle, false, 6, {}},
               {kDirectionTitle, false, 4, {}},
               {kPidTitle, true, 7, {}},
               {kSpeedTitle, true, 0, {Color::kGreen}},
               {kAllowedTitle, true, 5, {}},
               {kShareTitle, true, 10, {}},
               {kDoneTitle, true, 3, {}},
               {kLeftTitle, true, 8, {}},
               {"HISTORY", true, 9, {Color::kCyan}},
               {kFileTitle, false, 0, {}, true}});
    pageRows_ = std::max<std::size_t>(rows - 1, 1);
    firstRow_ = std::min(firstRow_, place_);
    if (place_ >= firstRow_ + pageRows_) firstRow_ = place_ - pageRows_ + 1;
    const std::size_t spare = columns > kUsualColumns ? (columns - kUsualColumns) / 2 : 0;
    const std::size_t graphColumns = std::min(kLeastHistory + spare, kMaxHistory);
    for (std::size_t i = firstRow_; i < std::min(firstRow_ + pageRows_, shown_.size()); ++i) {
        std::vector<Color> look;
        if (!shown_[i].transfer->active) look = {Color::kRed};
        if (i == place_) look = {Color::kInverse};
        grid.AddRow(Cells(shown_[i], graphColumns), std::move(look));
    }
    std::vector<TopLine> lines = grid.Lines(columns, Orders()[sortBy_].title);
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
