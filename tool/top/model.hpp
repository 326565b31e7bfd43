// What "top" shows: the transfers with their history, order, filter and selection, and the lines of
// a screen of any size. Times are arguments; nothing is read and nothing is drawn. Only the locale
// counts, for the width of characters.
#ifndef ZEVOBW_TOOL_TOP_MODEL_HPP
#define ZEVOBW_TOOL_TOP_MODEL_HPP

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <sys/types.h>

#include "model/transfer_list.hpp"
#include "top/text.hpp"

namespace tool {

// Texts are raw. The lines of the screen hold them printable.
struct TopTransfer : RunningTransfer {
    std::string user;
    std::string service;                   // the protocol by its name
    std::optional<std::uint64_t> limitBps; // what the user's limits allow it alone, 0 unlimited
};

struct TopGroup {
    std::string group;
    std::string protocol;
    std::int32_t direction = 0;
    std::size_t transfers = 0;
    std::uint64_t speedBps = 0;
    std::optional<std::uint64_t> limitBps; // 0 unlimited
};

struct TopFigures {
    std::int64_t nowUs = 0; // of a clock that is never set
    std::string time;       // of the day
    std::vector<TopTransfer> transfers;
    std::vector<TopGroup> groups;
    std::string complaint; // what could not be read
};

struct TopKey {
    enum Code { kText, kUp, kDown, kPageUp, kPageDown, kHome, kEnd, kEnter, kEscape, kErase };
    Code code = kText;
    std::string text; // one character
};

enum class TopAction { kNone, kQuit, kStop };

class TopModel {
public:
    // utf8: the terminal shows more than ASCII. hints: the bottom line says which keys there are.
    explicit TopModel(bool utf8, bool hints = true) : view_{utf8}, hints_(hints) {}

    void Update(TopFigures figures);
    // kStop: the person has agreed to stop the selected transfer.
    TopAction Press(const TopKey &key);
    // Nothing when no transfer is shown.
    const TopTransfer *Selected() const;
    // In the bottom line until the next key, for some seconds at most.
    void Say(const std::string &message);

    // As many lines as the screen has, none of them wider.
    std::vector<TopLine> Compose(std::size_t rows, std::size_t columns);

private:
    using Key = std::tuple<std::uint32_t, pid_t, std::int32_t>;
    enum class Mode { kList, kFilter, kQuestion, kHelp };
    struct Sample {
        std::int64_t us;
        std::uint32_t progress;
    };
    struct Track {
        std::deque<std::uint64_t> speeds;
        std::deque<Sample> samples;
    };
    // What is worked out from the figures and the track of a transfer.
    struct Entry : TopTransfer {
        const Track *track = nullptr;
        std::optional<std::uint64_t> share = {}; // allowed of the limit, ten-thousandths
        std::uint64_t secondsLeft =
            UINT64_MAX; // at the pace of the last minute; the most: not known
    };
    template <auto field> static bool Less(const Entry &a, const Entry &b)
    {
        return a.*field < b.*field;
    }
    template <auto field> static bool More(const Entry &a, const Entry &b)
    {
        return b.*field < a.*field;
    }
    struct View {
        bool utf8;
        std::size_t graphColumns = 0;
        std::string Clean(const std::string &text) const;
    };
    struct Column;
    static const std::vector<Column> &Columns();

    static Key KeyOf(const TopTransfer &transfer);
    void Record();
    void Arrange();
    void FindSelection();
    bool Matches(const TopTransfer &transfer) const;
    TopAction PressInList(const TopKey &key);
    bool Move(TopKey::Code code);
    void PressInFilter(const TopKey &key);
    TopAction PressInQuestion(const TopKey &key);
    void SortByColumnAfter(std::size_t step);
    std::string Title() const;
    std::string Bottom() const;
    std::vector<TopLine> BottomLines(std::size_t rows, std::size_t columns) const;
    std::vector<TopLine> GroupLines(std::size_t rows, std::size_t columns) const;
    std::vector<TopLine> TransferLines(std::size_t rows, std::size_t columns);

    View view_;
    const bool hints_;
    TopFigures figures_;
    std::map<Key, Track> tracks_;
    std::vector<Entry> shown_; // those that pass the filter, in order
    Mode mode_ = Mode::kList;
    std::string filter_;
    std::string message_;
    std::int64_t saidUs_ = 0;
    std::size_t sortBy_ = 4; // the speed
    bool reversed_ = false;
    std::optional<Key> selected_;
    std::size_t place_ = 0;    // of the selection in shown_
    std::size_t firstRow_ = 0; // of shown_ on the screen
    std::size_t pageRows_ = 1;
};

} // namespace tool

#endif // ZEVOBW_TOOL_TOP_MODEL_HPP
