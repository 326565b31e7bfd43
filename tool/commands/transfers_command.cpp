// "transfers": what is running now, once or again and again.
#include <stdio_ext.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "command.hpp"
#include "model/rate.hpp"
#include "model/transfer_list.hpp"
#include "options.hpp"
#include "output.hpp"
#include "pipe/signal.hpp"

namespace tool {

namespace {

struct TransfersArguments {
    OwnerOption owner;
    TransferSelection selection;
    bool merge = false;
    CLI::Option *watch = nullptr;
    double watchSeconds = 1;
};

// The arguments with every name looked up.
struct Request {
    std::optional<Owner> owner;
    TransferFilter filter;
};

TransferList Read(const Request &request)
{
    TransferList list(request.filter);
    list.ReadChosen(request.owner);
    return list;
}

Table ToTable(const TransferList &list, const Request &request)
{
    Table sums({"OWNER", "NAME", "PROTOCOL", "DIRECTION", "SPEED", "ALLOWED"}, {4, 5});
    Table all({"USER", "PROTOCOL", "DIRECTION", "PID", "SPEED", "ALLOWED", "PROGRESS", "FILE"},
              {3, 4, 5, 6});
    for (const RunningTransfer &one : list.all()) {
        const std::string speed = FormatSpeed(one.speedBps);
        const std::string allowed = FormatAllowedSpeed(one.allowedBps);
        if (request.filter.merge)
            sums.AddRow({ValueName(ZEVO_BW_OWNER_TYPE_LIST, one.ownerType), OwnerName(one),
                         ProtocolOf(one), DirectionOf(one), speed, allowed});
        else
            all.AddRow({UserName(one.uid), ProtocolOf(one), DirectionOf(one),
                        std::to_string(one.pid), speed, allowed, FormatProgress(one.progress),
                        one.file});
    }
    return request.filter.merge ? sums : all;
}

Json ToJson(const TransferList &list, const Request &request)
{
    return JsonArray(list.all(), [&request](const RunningTransfer &one) -> Json {
        if (!request.filter.merge) return ToJson(one);
        return {{"owner", ValueName(ZEVO_BW_OWNER_TYPE_LIST, one.ownerType)},
                {"name", OwnerName(one)},
                {"id", one.ownerId},
                {"protocol", ProtocolOf(one)},
                {"direction", DirectionOf(one)},
                {"speed_bytes_per_s", one.speedBps},
                {"allowed_bytes_per_s", LimitJson(one.allowedBps)}};
    });
}

// ---- once ----

void ListOnce(const Request &request)
{
    const TransferList list = Read(request);
    list.PrintComplaints();
    if (OutputStyle().json)
        PrintJson(ToJson(list, request));
    else if (list.all().empty())
        PrintNote("No limited transfers are running.");
    else
        ToTable(list, request).Print();
    if (!list.complaints().empty()) throw Failure(list.status(), "the list is incomplete");
}

// ---- again and again ----

// The alternate screen. What was on the terminal before comes back.
class WatchScreen {
public:
    WatchScreen() { Write("\033[?1049h\033[?25l\033[?7l"); }
    ~WatchScreen() { Write("\033[?7h\033[?25h\033[?1049l"); }
    WatchScreen(const WatchScreen &) = delete;
    WatchScreen &operator=(const WatchScreen &) = delete;

    // Draws the lines that fit over the last ones. Clearing first would flicker.
    void Draw(const std::vector<std::string> &lines) const
    {
        winsize size = {};
        const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
        const std::size_t rows = known ? size.ws_row : 24;
        std::string text = "\033[H";
        for (std::size_t i = 0; i < lines.size() && i < rows; ++i)
            text += (i == 0 ? "" : "\r\n") + lines[i] + "\033[K";
        Write(text + "\033[J");
    }

private:
    static void Write(const std::string &text)
    {
        PrintText(text);
        static_cast<void>(std::fflush(stdout)); // FlushOutput() tells what failed
    }
};

std::vector<std::string> ScreenLines(const TransferList &list, const Request &request)
{
    std::vector<std::string> lines;
    for (const std::string &complaint : list.complaints())
        lines.push_back(Printable(complaint));
    const auto table = list.all().empty()
                           ? std::vector<std::string>{"No limited transfers are running."}
                           : ToTable(list, request).Lines();
    lines.insert(lines.end(), table.begin(), table.end());
    return lines;
}

void PrintBlock(const TransferList &list, const Request &request, bool isFirst)
{
    list.PrintComplaints();
    if (OutputStyle().json) return PrintLine(JsonText(ToJson(list, request)));
    if (!isFirst) PrintLine("");
    ToTable(list, request).Print();
}

void Watch(const Request &request, double seconds)
{
    CatchEnding();
    std::optional<WatchScreen> screen;
    if (!OutputStyle().json && ControlsTerminal()) screen.emplace();
    const auto pauseUs = static_cast<std::int64_t>(seconds * 1e6);
    std::int64_t nextUs = NowUs();
    for (bool isFirst = true; EndingSignal() == 0; isFirst = false) {
        const TransferList list = Read(request);
        {
            const SignalsLetIn scope; // a reader that hangs must not keep the command from ending
            if (screen)
                screen->Draw(ScreenLines(list, request));
            else
                PrintBlock(list, request, isFirst);
            static_cast<void>(std::fflush(stdout));
        }
        if (EndingSignal() == 0) FlushOutput();
        nextUs = std::max(nextUs + pauseUs, NowUs());
        while (EndingSignal() == 0 && NowUs() < nextUs)
            WaitReady(nullptr, 0, nextUs);
    }
    // Drop output that nobody reads, or the exit would wait for it again.
    ::__fpurge(stdout);
    std::clearerr(stdout);
}

void ListTransfers(const TransfersArguments &arguments)
{
    Request request{arguments.owner.FindIfGiven(), arguments.selection.Filter()};
    request.filter.merge = arguments.merge;
    if (arguments.watch->count() != 0)
        Watch(request, arguments.watchSeconds > 0 ? arguments.watchSeconds : 1);
    else
        ListOnce(request);
}

} // namespace

void AddTransfersCommand(CLI::App &app)
{
    const auto [command, arguments] = AddCommand(
        app, "transfers", "List the limited transfers that run now", ListTransfers,
        "Upload is from the client to this server, download from this server to the client. With "
        "-g: the transfers charged to the group, with the part of the speed that it is charged. A "
        "sum is unlimited as soon as one of its transfers is. Transfers that no limit applies to "
        "are not listed. --watch redraws in place on a terminal; elsewhere blocks are set apart by "
        "a blank line, JSON documents stand on one line each. Its exit status is 0 when it is "
        "interrupted.\n\n"
        "Examples:\n"
        "  zevobandwidth transfers\n"
        "  zevobandwidth transfers -u alice --json\n"
        "  zevobandwidth transfers -g staff -p rsync -d upload --watch 5\n"
        "  zevobandwidth transfers --merge\n");
    AddOwnerOption(command, arguments.owner);
    AddTransferSelection(command, arguments.selection);
    command.add_flag("--merge", arguments.merge,
                     "One line for each protocol and direction of an owner, with the sums of the "
                     "speeds; groups too");
    arguments.watch =
        AddSecondsOption(command, "--watch", arguments.watchSeconds,
                         "Again and again, every so many seconds (1), until interrupted")
            ->expected(0, 1)
            ->type_name("[SECONDS]");
    AddOutputOptions(command);
}

} // namespace tool
