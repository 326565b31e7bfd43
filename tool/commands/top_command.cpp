// "top": the running transfers, full screen and live.
#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <tuple>

#include "command.hpp"
#include "model/limit_book.hpp"
#include "model/moment.hpp"
#include "model/plan.hpp"
#include "model/stopping.hpp"
#include "model/transfer_list.hpp"
#include "options.hpp"
#include "output.hpp"
#include "pipe/signal.hpp"
#include "top/model.hpp"
#include "top/screen.hpp"

namespace tool {

namespace {

// How long a refresh may look up unknown limits.
constexpr std::int64_t kLimitBudgetUs = 10'000;
constexpr std::chrono::seconds kMaxStopTime{10};

std::vector<TopTransfer> ToTransfers(const TransferList &list, LimitBook &limits)
{
    std::vector<TopTransfer> transfers;
    for (const RunningTransfer &running : list.all())
        transfers.push_back(
            {running, UserName(running.uid), ProtocolOf(running),
             limits.Of(ZEVO_BW_OWNER_USER, running.uid, running.protocol, running.direction)});
    return transfers;
}

// One for each protocol and direction of a group. The list is sorted, so its copies are neighbours.
std::vector<TopGroup> ToGroups(const TransferList &list, LimitBook &limits)
{
    std::vector<TopGroup> groups;
    const RunningTransfer *last = nullptr;
    for (const RunningTransfer &copy : list.all()) {
        const auto place = [](const RunningTransfer &t) {
            return std::tie(t.ownerId, t.protocol, t.direction);
        };
        if (last == nullptr || place(*last) != place(copy))
            groups.push_back({.group = OwnerName(copy),
                              .protocol = ProtocolOf(copy),
                              .direction = copy.direction,
                              .limitBps = limits.Of(ZEVO_BW_OWNER_GROUP, copy.ownerId,
                                                    copy.protocol, copy.direction)});
        groups.back().transfers += 1;
        groups.back().speedBps += copy.speedBps;
        last = &copy;
    }
    return groups;
}

TopFigures ReadFigures(LimitBook &limits)
{
    TransferList users;
    users.ReadAll(ZEVO_BW_OWNER_USER);
    users.Sort();
    TransferList groups;
    groups.ReadAll(ZEVO_BW_OWNER_GROUP);
    groups.Sort();
    limits.BeginRound(kLimitBudgetUs);
    TopFigures figures;
    figures.nowUs = NowUs();
    figures.time = FormatTime(LocalTime(std::time(nullptr)), "%H:%M:%S");
    figures.groups = ToGroups(groups, limits);
    figures.transfers = ToTransfers(users, limits);
    for (const TransferList *list : {&groups, &users})
        if (!list->complaints().empty()) figures.complaint = list->complaints().front();
    return figures;
}

// Stops a transfer step by step, between two refreshes.
class StopInTheBackground {
public:
    bool IsBusy() const noexcept { return stopping_.has_value(); }
    void GiveUp() noexcept { stopping_.reset(); }

    // Returns the message.
    std::string Start(const TopTransfer &transfer)
    {
        const std::string id = std::to_string(transfer.uid);
        const Account user = FindUser(id);
        if (user.id != transfer.uid) throw Failure(kNotFound, "no such user: " + id);
        TransferFilter which;
        which.pid = transfer.pid;
        which.directions = static_cast<std::uint32_t>(transfer.direction);
        stopping_.emplace(user, which);
        if (!stopping_->found().empty()) return Step();
        GiveUp();
        return "That transfer has ended by itself.";
    }

    std::string Step()
    {
        const std::string who = "Process " + std::to_string(stopping_->found().front().pid) + ": ";
        stopping_->Step();
        const std::string ms = std::to_string(stopping_->Took().count()) + " ms";
        const bool isOver = stopping_->left().empty();
        const bool isLate = stopping_->Took() > kMaxStopTime;
        if (isOver || isLate) GiveUp();
        if (isOver) return who + "stopped after " + ms;
        return who + (isLate ? "marked; it will end with its next block" : "stopping ...");
    }

private:
    std::optional<Stopping> stopping_;
};

class Top {
public:
    explicit Top(double seconds)
        : periodUs_(static_cast<std::int64_t>(seconds * 1e6)),
          model_(screen_.ShowsUtf8(), !OutputStyle().noLegend)
    {
    }

    void Run()
    {
        while (EndingSignal() == 0) {
            Refresh();
            screen_.Draw(model_.Compose(screen_.Rows(), screen_.Columns()));
            screen_.Wait(WakeUs());
            while (const auto key = screen_.NextKey())
                if (!Obey(model_.Press(*key))) return;
            if (stop_.IsBusy()) Tell([&] { return stop_.Step(); });
        }
    }

private:
    void Refresh()
    {
        if (NowUs() < nextUs_) return;
        model_.Update(ReadFigures(limits_));
        nextUs_ = NowUs() + periodUs_;
    }

    std::int64_t WakeUs() const
    {
        constexpr std::int64_t kStepUs = std::chrono::microseconds(Stopping::kLookAgain).count();
        return stop_.IsBusy() ? std::min(nextUs_, NowUs() + kStepUs) : nextUs_;
    }

    // False for the end.
    bool Obey(TopAction action)
    {
        if (action == TopAction::kStop && model_.Selected() != nullptr) {
            Tell([&] { return stop_.Start(*model_.Selected()); });
            nextUs_ = 0; // shows the mark
        }
        return action != TopAction::kQuit;
    }

    // A transfer that cannot be stopped does not end top.
    template <typename Step> void Tell(Step step)
    {
        try {
            model_.Say(step());
        } catch (const Failure &failure) {
            stop_.GiveUp();
            model_.Say(failure.what());
        }
    }

    TopScreen screen_;
    const std::int64_t periodUs_;
    TopModel model_;
    LimitBook limits_;
    StopInTheBackground stop_;
    std::int64_t nextUs_ = 0;
};

struct TopArguments {
    double seconds = 1;
};

void ShowTop(const TopArguments &arguments)
{
    CatchEnding();
    Top(arguments.seconds).Run();
}

} // namespace

void AddTopCommand(CLI::App &app)
{
    const auto [command, arguments] = AddCommand(
        app, "top", "Watch the running transfers, full screen", ShowTop,
        "Shows per transfer its speed, the speed it is allowed now, what part that is of what the "
        "user's limits allow one transfer alone, progress, time left and the last speeds; above it "
        "what the groups are charged of their limits. Keys: arrows select, s sorts by another "
        "column, r reverses, / filters, x stops the selected transfer after a question, ? helps, q "
        "quits. The time left is worked out from the progress that the service reports.\n\n"
        "Examples:\n"
        "  zevobandwidth top\n"
        "  zevobandwidth top -n -d 5\n");
    AddSecondsOption(command, "-d,--delay", arguments.seconds, "Look again every so many seconds")
        ->capture_default_str();
    AddOutputOptions(command, {.json = "use 'zevobandwidth transfers --watch --json'"});
}

} // namespace tool
