// Nothing here fails. What cannot be read is not offered.
#include "completion.hpp"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "command.hpp"
#include "model/names.hpp"
#include "model/transfer_list.hpp"
#include "output.hpp"

namespace tool {

namespace {

// Lower ids are system accounts. They are offered only when no other account fits.
constexpr std::uint32_t kFirstPerson = 1000;
constexpr std::uint32_t kNobody = 65534;

// ---- where the line has got to ----

struct Place {
    const CLI::App *command = nullptr;
    const CLI::Option *pending = nullptr; // an option that waits for its value
    std::size_t positionals = 0;          // already there
    bool onlyPositionals = false;         // after "--"
    std::string user;                     // the value of -u
};

bool TakesValue(const CLI::Option &option)
{
    return option.get_items_expected_min() > 0;
}

const CLI::App *FindCommand(const CLI::App &command, const std::string &name)
{
    const auto found = command.get_subcommands(
        [&name](const CLI::App *child) { return child->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

void TakeValue(Place &place, const CLI::Option &option, const std::string &value)
{
    if (option.check_lname("user")) place.user = value;
    place.pending = nullptr;
}

// "--name", "--name=value".
void TakeLong(Place &place, const std::string &word)
{
    const std::size_t equals = word.find('=');
    const CLI::Option *option = place.command->get_option_no_throw(word.substr(0, equals));
    if (option == nullptr || !TakesValue(*option)) return;
    if (equals == std::string::npos)
        place.pending = option;
    else
        TakeValue(place, *option, word.substr(equals + 1));
}

// "-u", "-ualice", "-nq".
void TakeShort(Place &place, const std::string &word)
{
    for (std::size_t i = 1; i < word.size(); ++i) {
        const CLI::Option *option = place.command->get_option_no_throw({'-', word[i]});
        if (option == nullptr) return;
        if (!TakesValue(*option)) continue;
        if (i + 1 == word.size())
            place.pending = option;
        else
            TakeValue(place, *option, word.substr(i + 1));
        return;
    }
}

void Take(Place &place, const std::string &word)
{
    // bash hands over "--name=value" in three words.
    if (place.pending != nullptr && word == "=") return;
    if (place.pending != nullptr) return TakeValue(place, *place.pending, word);
    if (!place.onlyPositionals && word == "--") {
        place.onlyPositionals = true;
    } else if (!place.onlyPositionals && word.starts_with("--")) {
        TakeLong(place, word);
    } else if (!place.onlyPositionals && word.starts_with('-') && word.size() > 1) {
        TakeShort(place, word);
    } else if (const CLI::App *child = FindCommand(*place.command, word)) {
        place.command = child;
        place.positionals = 0;
    } else {
        ++place.positionals;
    }
}

// ---- what fits there ----

class Offer {
public:
    explicit Offer(std::string typed) : typed_(std::move(typed)) {}

    // Does not offer text with characters that a terminal or a shell would not take.
    void Add(const std::string &text, const std::string &about)
    {
        if (text.starts_with(typed_) && Printable(text) == text)
            completion_.candidates.push_back({before_ + text, Printable(about)});
    }
    void AddFiles() { completion_.isFile = true; }

    // Keeps this much of the word. The candidates replace only the rest.
    void KeepBefore(std::size_t length)
    {
        before_ += typed_.substr(0, length);
        typed_.erase(0, length);
    }

    const std::string &typed() const noexcept { return typed_; }
    bool empty() const noexcept { return completion_.candidates.empty(); }
    Completion Take() { return std::move(completion_); }

private:
    std::string typed_;
    std::string before_;
    Completion completion_;
};

struct Person {
    std::uint32_t id;
    std::string name;
    std::string about;
};

void OfferPeople(Offer &offer, const std::vector<Person> &people)
{
    const auto isSystem = [](const Person &p) { return p.id < kFirstPerson || p.id == kNobody; };
    for (const bool system : {false, true}) {
        for (const Person &person : people)
            if (isSystem(person) == system) offer.Add(person.name, person.about);
        if (!offer.empty()) return;
    }
}

Person ToPerson(const passwd &entry)
{
    return {entry.pw_uid, entry.pw_name, "uid " + std::to_string(entry.pw_uid)};
}
Person ToPerson(const group &entry)
{
    return {entry.gr_gid, entry.gr_name, "gid " + std::to_string(entry.gr_gid)};
}

// begin, next and end walk over a user database.
template <void (*begin)(), auto next, void (*end)()> void OfferAll(Offer &offer, const Place &)
{
    std::vector<Person> people;
    begin();
    while (const auto *entry = next())
        people.push_back(ToPerson(*entry));
    end();
    OfferPeople(offer, people);
}

void OfferProtocols(Offer &offer, const Place &)
{
    for (const Protocol &protocol : KnownProtocols())
        offer.Add(protocol.name, "");
}

void OfferAddons(Offer &offer, const Place &)
{
    for (const Addon &addon : AddonFiles())
        if (addon.fault.empty()) offer.Add(addon.protocol.name, "");
}

// Offers the processes of the user that the line names, else of all users.
void OfferPids(Offer &offer, const Place &place)
{
    TransferList list;
    try {
        if (place.user.empty())
            list.ReadAll(ZEVO_BW_OWNER_USER);
        else
            list.Read(ZEVO_BW_OWNER_USER, FindUser(place.user).id);
    } catch (const Failure &) {
        return;
    }
    list.Sort();
    for (const RunningTransfer &transfer : list.all())
        offer.Add(std::to_string(transfer.pid), OwnerName(transfer) + ", " + ProtocolOf(transfer) +
                                                    " " + DirectionOf(transfer) + ", " +
                                                    transfer.file);
}

void OfferFiles(Offer &offer, const Place &)
{
    offer.AddFiles();
}

struct Source {
    std::string_view type; // as the help shows it
    void (*offer)(Offer &, const Place &);
};

constexpr std::array kSources = {
    Source{"USER", OfferAll<::setpwent, ::getpwent, ::endpwent>},
    Source{"GROUP", OfferAll<::setgrent, ::getgrent, ::endgrent>},
    Source{"PROTOCOL", OfferProtocols},
    Source{"ADDON", OfferAddons},
    Source{"PID", OfferPids},
    Source{"FILE", OfferFiles},
};

// Takes the values from the help, such as "{enabled,disabled,schedule}".
void OfferChoices(Offer &offer, std::string_view choices)
{
    while (!choices.empty() && choices.front() != '}') {
        choices.remove_prefix(1);
        const std::size_t end = std::min(choices.find_first_of(",}"), choices.size());
        offer.Add(std::string(choices.substr(0, end)), "");
        choices.remove_prefix(end);
    }
}

// "USER|@GROUP": a user, or a group after an at sign.
void OfferKinds(Offer &offer, const Place &place, std::string_view kinds)
{
    while (!kinds.empty()) {
        const std::size_t bar = std::min(kinds.find('|'), kinds.size());
        std::string_view kind = kinds.substr(0, bar);
        kinds.remove_prefix(std::min(bar + 1, kinds.size()));
        const bool wantsAt = kind.starts_with('@');
        if (wantsAt != offer.typed().starts_with('@')) continue;
        if (wantsAt) {
            offer.KeepBefore(1);
            kind.remove_prefix(1);
        }
        for (const Source &source : kSources)
            if (source.type == kind) source.offer(offer, place);
    }
}

void OfferValues(Offer &offer, const Place &place, const CLI::Option &option)
{
    const std::string type = option.get_type_name();
    if (const std::size_t brace = type.find('{'); brace != std::string::npos)
        return OfferChoices(offer, std::string_view(type).substr(brace));
    std::string kinds = type.substr(0, type.find(':'));
    std::erase_if(kinds, [](char c) { return c == '(' || c == ')'; });
    OfferKinds(offer, place, kinds);
}

// The first sentence.
std::string Briefly(const std::string &about)
{
    return about.substr(0, about.find(". "));
}

void OfferOptions(Offer &offer, const CLI::App &command)
{
    for (const CLI::Option *option : command.get_options())
        for (const std::string &name : option->get_lnames())
            if (!option->get_group().empty())
                offer.Add("--" + name, Briefly(option->get_description()));
}

void OfferCommands(Offer &offer, const CLI::App &command)
{
    for (const CLI::App *child : command.get_subcommands([](const CLI::App *) { return true; }))
        if (!child->get_group().empty())
            offer.Add(child->get_name(), Briefly(child->get_description()));
}

const CLI::Option *NextPositional(const Place &place)
{
    std::size_t before = place.positionals;
    for (const CLI::Option *option : place.command->get_options()) {
        if (!option->get_positional()) continue;
        const auto takes = static_cast<std::size_t>(option->get_items_expected_max());
        if (before < takes) return option;
        before -= takes;
    }
    return nullptr;
}

// "--name=value" in one word.
void OfferAssigned(Offer &offer, const Place &place, std::size_t equals)
{
    const CLI::Option *option = place.command->get_option_no_throw(offer.typed().substr(0, equals));
    if (option == nullptr || !TakesValue(*option)) return;
    offer.KeepBefore(equals + 1);
    OfferValues(offer, place, *option);
}

void OfferAt(Offer &offer, const Place &place)
{
    if (place.pending != nullptr) return OfferValues(offer, place, *place.pending);
    const std::size_t equals = offer.typed().find('=');
    if (!place.onlyPositionals && offer.typed().starts_with('-'))
        return equals == std::string::npos ? OfferOptions(offer, *place.command)
                                           : OfferAssigned(offer, place, equals);
    OfferCommands(offer, *place.command);
    if (const CLI::Option *option = NextPositional(place)) OfferValues(offer, place, *option);
    // The command takes only options.
    if (offer.empty() && offer.typed().empty()) OfferOptions(offer, *place.command);
}

} // namespace

Completion Complete(const CLI::App &root, const std::vector<std::string> &words)
{
    Place place;
    place.command = &root;
    for (std::size_t i = 1; i + 1 < words.size(); ++i)
        Take(place, words[i]);
    std::string typed = words.size() > 1 ? words.back() : "";
    // bash makes the equals sign a word of its own.
    if (place.pending != nullptr && typed == "=") typed.clear();
    Offer offer(std::move(typed));
    OfferAt(offer, place);
    return offer.Take();
}

} // namespace tool
