// "zevobandwidth pipe": standard input to standard output as one registered transfer, so that any
// program can join in.
//
// The transfer is always taken off the list first. Then the process ends with 0 at the end of the
// input. After SIGINT or SIGTERM, or when its reader is gone (SIGPIPE), it dies of the signal as
// any filter. It ends with 1 and a message when an administrator stops the transfer, or when it
// cannot go on.
#include <csignal>
#include <cstdint>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "command.hpp"
#include "model/names.hpp"
#include "model/rate.hpp"
#include "options.hpp"
#include "output.hpp"
#include "pipe/loop.hpp"
#include "pipe/mover.hpp"
#include "pipe/progress.hpp"
#include "pipe/signal.hpp"
#include "pipe/transfer.hpp"

namespace tool {

namespace {

struct PipeArguments {
    std::string user;
    std::string protocol;
    std::string direction;
    std::string name;
    std::string size;
    bool isQuiet = false;
};

// The name in the list of transfers when --name is not given.
std::string NameOfInput()
{
    struct stat info = {};
    char path[ZEVO_BW_FILENAME_SIZE];
    if (::fstat(STDIN_FILENO, &info) == 0 && S_ISREG(info.st_mode)) {
        const ssize_t length = ::readlink("/proc/self/fd/0", path, sizeof path);
        if (length > 0) return std::string(path, static_cast<std::size_t>(length));
    }
    return "standard input";
}

std::uint64_t SizeOfInput(const PipeArguments &arguments)
{
    if (!arguments.size.empty()) return ParseSize(arguments.size);
    struct stat info = {};
    if (::fstat(STDIN_FILENO, &info) < 0 || !S_ISREG(info.st_mode)) return 0;
    const off_t at = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
    return at >= 0 && at < info.st_size ? static_cast<std::uint64_t>(info.st_size - at) : 0;
}

// Without a policy, or with a disabled one, no rule applies.
void SayIfUnlimited(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy, const PipeArguments &arguments)
{
    const bool isOff =
        policy.state == ZEVO_BW_STATE_NOT_EXISTED || policy.state == ZEVO_BW_STATE_DISABLED;
    if (arguments.isQuiet || !isOff) return;
    PrintNote("zevobandwidth: " + arguments.protocol +
              " has no policy that applies, so nothing limits this transfer; to switch limits on: "
              "zevobandwidth policy set -p " +
              arguments.protocol + " --state enabled");
}

MoveEnd Copy(const PipeArguments &arguments, std::uint32_t uid, std::int32_t protocol,
             std::uint64_t size)
{
    const std::string name = arguments.name.empty() ? NameOfInput() : arguments.name;
    const std::int32_t direction = ValueOf(ZEVO_BW_TRANSFER_TYPE_LIST, arguments.direction);
    Mover mover(STDIN_FILENO, STDOUT_FILENO);
    zevobw::Transfer transfer = BeginTransfer(uid, protocol, direction, name);
    SayIfUnlimited(transfer.config().policy(), arguments);
    Progress progress(arguments.isQuiet, name);
    return RunLoop(transfer, mover, progress, size);
}

void RunPipe(const PipeArguments &arguments)
{
    const std::uint32_t uid = arguments.user.empty() ? ::getuid() : FindUser(arguments.user).id;
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    const std::uint64_t size = SizeOfInput(arguments);
    // Before the limits are read, so that no notice is missed.
    CatchSignals();
    const MoveEnd end = Copy(arguments, uid, protocol, size);
    if (end == MoveEnd::kSignal) DieOf(EndingSignal());
    if (end != MoveEnd::kReaderGone) return;
    DieOf(SIGPIPE);
    throw Failure(kFailed, "whoever reads the data has gone away before its end");
}

} // namespace

void AddPipeCommand(CLI::App &app)
{
    const auto [command, arguments] = AddCommand(
        app, "pipe", "Copy input to output as one transfer, held to the limits", RunPipe,
        "Copies standard input to standard output as one transfer of a user, held to the limits "
        "that fall to it beside all others, listed by 'transfers' and stopped by an administrator "
        "like any other. Upload is from the client to this server, download from this server to "
        "the client.\n\n"
        "Example:\n"
        "  tar c dir | zevobandwidth pipe -u alice -p rsync -d upload | ssh host tar x\n");
    command.add_option("-u,--user", arguments.user, "Whose transfer it is; else your own")
        ->type_name("USER");
    AddProtocolOption(command, arguments.protocol)->required();
    AddDirectionOption(command, arguments.direction);
    command.add_option("--name", arguments.name, "What the list of transfers shows")
        ->type_name("NAME");
    command.add_option("--size", arguments.size, "Bytes expected, such as 1500000 or 1.5G")
        ->type_name("SIZE");
    command.add_flag("-q,--quiet", arguments.isQuiet, "No progress line and no notes");
    constexpr const char *kIsData = "standard output carries the data";
    AddOutputOptions(command, {.json = "standard output carries the data; another process can ask "
                                       "'zevobandwidth transfers --json' meanwhile",
                               .numeric = kIsData,
                               .legend = kIsData});
}

} // namespace tool
