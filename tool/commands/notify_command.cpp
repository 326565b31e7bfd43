// "notify": tells running services that limits have changed, and reports the results.
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <zevobandwidth.h>

#include "command.hpp"
#include "model/notify.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

struct Notice {
    Json result;      // what the sender returned; null when it returns nothing
    std::string text; // the same in words
    bool failed = false;
};

Notice NotifyDocuhall()
{
    ZEVOBandwidthHupDocuhall();
    return {nullptr, "sent to all its workers; they report nothing"};
}

Notice NotifyWebDAV()
{
    const int result = ZEVOBandwidthHupWebDAV();
    const int error = errno;
    if (result < 0)
        return {result,
                std::string("not told: ") + std::strerror(error) +
                    (error == EPERM ? "; run this command as an administrator (root)"
                                    : "; is the pid file of a server that is gone left behind?"),
                true};
    // No server and a sent signal return the same.
    return {result, "sent, unless no server is running"};
}

// The system's program does not reach every process on every system, so the tool signals them, too.
Notice NotifySimulator()
{
    const int result = ZEVOBandwidthHupSimulator();
    const auto told = static_cast<std::size_t>(NotifyTransfers());
    return {result, Counted(told, "process") + " told"};
}

struct Service {
    const char *name;
    Notice (*send)();
};

constexpr std::array kServices = {Service{"docuhall", NotifyDocuhall},
                                  Service{"webdav", NotifyWebDAV},
                                  Service{"simulator", NotifySimulator}};
constexpr const char *kAll = "all";

void Notify(const std::string &name)
{
    Json json = Json::array();
    Table table({"SERVICE", "NOTICE"});
    bool failed = false;
    for (const Service &service : kServices) {
        if (name != kAll && name != service.name) continue;
        const Notice notice = service.send();
        failed = failed || notice.failed;
        json.push_back({{"service", service.name},
                        {"result", notice.result},
                        {"failed", notice.failed},
                        {"text", notice.text}});
        table.AddRow({service.name, notice.text});
    }
    if (OutputStyle().json)
        PrintJson(json);
    else
        table.Print();
    if (failed) throw Failure(kFailed, "a service has not been told");
}

} // namespace

void AddNotifyCommand(CLI::App &app)
{
    const auto name = std::make_shared<std::string>();
    std::vector<std::string> names;
    names.reserve(kServices.size() + 1);
    for (const Service &service : kServices)
        names.emplace_back(service.name);
    names.emplace_back(kAll);
    CLI::App *command = app.add_subcommand("notify", "Tell running services to read limits anew");
    command->add_option("service", *name, "Whom to tell")
        ->required()
        ->type_name("SERVICE")
        ->check(CLI::IsMember(names));
    AddOutputOptions(*command);
    command->footer(
        "docuhall: the web file manager's workers. webdav: the WebDAV server. simulator: "
        "transfers\n"
        "run by zevobandwidth itself, and services that have taken its name. Changing commands\n"
        "tell all of them on their own; other services, as of FTP and rsync, read the limits with\n"
        "their next transfer, or when they look of themselves.\n"
        "Exit status 1: a service that runs could not be told.\n"
        "\nExamples:\n"
        "  zevobandwidth notify all\n"
        "  zevobandwidth notify webdav --json\n");
    command->callback([name] { Notify(*name); });
}

} // namespace tool
