// Reads and writes rules and policies through the library. Failures tell the administrator what to
// do.
#ifndef ZEVOBW_TOOL_MODEL_STORE_HPP
#define ZEVOBW_TOOL_MODEL_STORE_HPP

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <zevobandwidth.h>

#include "model/names.hpp"
#include "model/plan.hpp"

namespace tool {

struct Owner {
    std::int32_t type = ZEVO_BW_OWNER_USER;
    Account account;
    bool operator==(const Owner &other) const
    {
        return type == other.type && account.id == other.account.id;
    }
};

// "user alice".
std::string OwnerText(const Owner &owner);

// "-u alice -p ftp": the options that name a rule on the command line.
std::string RuleOptions(const Owner &owner, std::int32_t protocol);

// The owner of that id. Its name is the id if the user database does not know it.
Owner OwnerById(std::int32_t type, std::uint32_t id);
bool IsKnown(const Owner &owner);

// The account of exactly that name; an id does not count as a name.
std::optional<Account> FindByName(std::int32_t type, const std::string &name);

// The owner of "user-2001", as the library names sections and status files; its name is not looked
// up. Nothing for any other text.
std::optional<Owner> ParseOwner(std::string_view section);

// The rule file of a protocol, or the global file. Throws Failure for a protocol without a name.
std::string ConfPath(std::int32_t protocol);

// "section [user-2001] of FILE".
std::string PlaceText(const std::string &file, const std::string &section);

// Calls visit() with each section of a section file, in file order; reading them in that order costs
// one reading of the file. what: "rules of ftp". Throws Failure as ReadRule().
void ForEachSection(const std::string &path, const std::string &what,
                    const std::function<void(const std::string &)> &visit);

// A rule or policy that is not stored has the state NotExisted. All throw Failure: kNotPermitted if
// the file system refuses this user, else kFailed with the file and the remedy.
ZEVO_BANDWIDTH_CONF ReadRule(const Owner &owner, std::int32_t protocol);
void WriteRule(const ZEVO_BANDWIDTH_CONF &rule);
ZEVO_BANDWIDTH_GLOBAL_CONF ReadPolicy(std::int32_t protocol);
void WritePolicy(ZEVO_BANDWIDTH_GLOBAL_CONF policy);

// False for a cleared rule. True for a rule that cannot be read, because something is there. Throws
// Failure with kNotPermitted.
bool IsStored(const Owner &owner, std::int32_t protocol);

// Puts a plan into the field of a rule or a policy.
void CopyPlan(const std::string &plan, char (&field)[ZEVO_BW_PLAN_SIZE]);

struct StoredRule {
    Owner owner; // named by its id if the user database does not know it
    ZEVO_BANDWIDTH_CONF rule;
};

// All rules of these protocols, in the order of the protocols, users before groups, then by name. A
// rule that cannot be read is reported on standard error and counted in failures.
std::vector<StoredRule> ReadRules(const std::vector<std::int32_t> &protocols, int &failures);

// A rule, or a protocol's policy when there is no owner.
struct Setting {
    Setting(const Owner &itsOwner, const ZEVO_BANDWIDTH_CONF &itsRule)
        : owner(itsOwner), rule(itsRule)
    {
    }
    explicit Setting(const ZEVO_BANDWIDTH_GLOBAL_CONF &itsPolicy) : policy(itsPolicy) {}

    std::int32_t protocol() const { return owner ? rule.protocolType : policy.protocolType; }
    std::int32_t state() const { return owner ? rule.state : policy.state; }
    std::string plan() const { return owner ? rule.szSchedulePlan : policy.szSchedulePlan; }
    std::string File() const;
    std::string Section() const;
    std::string Place() const; // "section [user-2001] of FILE"
    // Orders settings; the owner type is 0 for a policy.
    using SettingKey = std::tuple<std::int32_t, std::int32_t, std::uint32_t>;
    SettingKey Key() const
    {
        return {protocol(), owner ? owner->type : 0, owner ? owner->account.id : 0};
    }

    std::optional<Owner> owner;
    ZEVO_BANDWIDTH_CONF rule{};
    ZEVO_BANDWIDTH_GLOBAL_CONF policy{};
};

// All stored policies, then all rules, as ReadRules() gives them.
std::vector<Setting> ReadSettings(int &failures);

// The protocol of that name; all known ones for an empty name. Throws Failure as FindProtocol().
std::vector<std::int32_t> ProtocolsToList(const std::string &name);

// The policies of all known protocols, also those that are not stored.
std::vector<ZEVO_BANDWIDTH_GLOBAL_CONF> ReadPolicies();

// Why rules do not apply under this policy, and how to change that; empty when they apply.
std::string WhyNothingIsLimited(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_STORE_HPP
