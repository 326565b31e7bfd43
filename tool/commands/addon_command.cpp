// "addon": the protocols that files in the add-on directory announce.
#include <array>
#include <memory>
#include <string>

#include "command.hpp"
#include "model/names.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

void ListAddons()
{
    const std::vector<Addon> addons = AddonFiles();
    Json json = Json::array();
    Table table({"NAME", "NUMBER", "FILE", "STATE"}, {1});
    for (const Addon &addon : addons) {
        const bool hasName = addon.protocol.number != 0;
        json.push_back({{"name", hasName ? Json(addon.protocol.name) : Json(nullptr)},
                        {"number", hasName ? Json(addon.protocol.number) : Json(nullptr)},
                        {"file", addon.file},
                        {"usable", addon.fault.empty()},
                        {"fault", addon.fault}});
        table.AddRow({hasName ? addon.protocol.name : "-",
                      hasName ? std::to_string(addon.protocol.number) : "-", addon.file,
                      addon.fault.empty() ? "usable" : "not usable: " + addon.fault});
    }
    if (OutputStyle().json) return PrintJson(json);
    if (addons.empty()) return PrintNote("There are no add-on protocols.");
    table.Print();
}

void PrintPath(const std::string &name)
{
    const std::int32_t number = FindProtocol(name);
    for (const auto *row = ZEVO_BW_PROTOCOL_TYPE_LIST; row->name != nullptr; ++row)
        if (row->value == number) throw Failure(kNotFound, name + " is built in and has no file");
    std::array<char, 4096> path{};
    if (ZEVOBandwidthGetAddonConfigPath(number, path.data(), path.size()) != 0)
        throw Failure(kFailed, "the file of " + name + " cannot be found any more");
    std::string text = path.data();
    if (const std::size_t slashes = text.rfind("//"); slashes != text.npos) text.erase(slashes, 1);
    if (OutputStyle().json)
        PrintJson({{"name", name}, {"path", text}});
    else
        PrintExactLine(text);
}

} // namespace

void AddAddonCommand(CLI::App &app)
{
    CLI::App *addon = app.add_subcommand("addon", "Protocols that add-ons announce");
    addon->require_subcommand(1);
    addon->footer("An add-on announces a protocol by a file NAME_NUMBER.json in the directory\n"
                  "/usr/zevo/etc/bandwidth/addon/.\n\nExample:\n  zevobandwidth addon list\n");
    CLI::App *list = addon->add_subcommand("list", "List the files, and whether they are usable");
    AddOutputOptions(*list);
    list->footer("Example:\n  zevobandwidth addon list --json\n");
    list->callback(ListAddons);

    const auto name = std::make_shared<std::string>();
    CLI::App *path = addon->add_subcommand("path", "Print the path of an add-on's file");
    path->add_option("name", *name, "Name of the add-on")->required()->type_name("ADDON");
    AddOutputOptions(*path);
    path->footer("Example:\n  zevobandwidth addon path backup\n");
    path->callback([name] { PrintPath(*name); });
}

} // namespace tool
