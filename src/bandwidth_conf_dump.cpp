// The table of rules: one line for each, under a header. The rates are those in force as the record
// was last evaluated; a record that comes straight from the store has none yet.

#include "bandwidth_dump.hpp"
#include "bandwidth_frame.hpp"

#include <cstdio>

using namespace bandwidth;

namespace {

// The database's entry for the owner of a rule, for as long as its name is printed.
class OwnerName {
public:
    int Find(const ZEVO_BANDWIDTH_CONF &conf) noexcept
    {
        switch (conf.ownerType) {
        case ZEVO_BW_OWNER_USER: {
            ZEVO_USER *pUser = nullptr;
            if (::ZEVOUserGetByUID(conf.id, &pUser) < 0)
                return BW_PASS("Get User failed. id:[%u] ", conf.id);
            user_.reset(pUser);
            return 0;
        }
        case ZEVO_BW_OWNER_GROUP: {
            ZEVO_GROUP *pGroup = nullptr;
            if (::ZEVOGroupGetByGID(conf.id, &pGroup) < 0)
                return BW_PASS("Get Group failed. id:[%u] ", conf.id);
            group_.reset(pGroup);
            return 0;
        }
        default:
            BW_LOG("Unknown conf type. id:[%u] ", conf.id);
            return BW_FAIL(ZEVO_BW_ERROR_OWNER_TYPE);
        }
    }
    const char *get() const noexcept { return user_ ? user_->szName : group_->szName; }

private:
    User user_;
    Group group_;
};

} // namespace

int ZEVOBandwidthConfDumpHeader(FILE *fp) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    (void)std::fprintf(fp, "%10s %20s %5s %20s %10s %10s\n", "State", "Protocol", "Type", "Name",
                       "U/L rate(KB/s)", "D/L rate(KB/s)"); // the stream remembers a failure
    return 0;
}

int ZEVOBandwidthConfDump(FILE *fp, const ZEVO_BANDWIDTH_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");

    OwnerName name;
    if (name.Find(*pConf) < 0) return BW_PASS_UNLOGGED;
    Hash hash;
    if (!hash) return BW_PASS("VLIBCSzHashAlloc failed.");
    if (::ZEVOBandwidthInitHashFromConf(hash.address(), pConf) < 0)
        return BW_PASS("Init hash from conf failed. ");
    (void)std::fprintf(fp, "%10s %20s %5s %20s %10llu %10llu\n", Column(hash, "state"),
                       Column(hash, "protocol type"), Column(hash, "owner type"), name.get(),
                       static_cast<unsigned long long>(pConf->currentUploadRate),
                       static_cast<unsigned long long>(pConf->currentDownloadRate));
    return 0;
}
