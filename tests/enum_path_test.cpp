// Names of enumeration values, add-on protocols, and the paths made of them. What an add-on search
// has found is remembered for the life of the process, so every test has numbers and names of its
// own.
#include "library_box.hpp"

#include <filesystem>

using standins::TakeLog;
using testing::IsEmpty;

namespace {

constexpr char kFile[] = "bandwidth_enum.cpp";
constexpr char kDirectory[] = "/usr/zevo/etc/bandwidth/addon/";

class Names : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        addon.Make();
    }

    std::string NameOf(const ZEVO_BW_ENUM_ENTRY *list, int32_t value)
    {
        char szName[256] = "untouched";
        return ZEVOBandwidthEnumToName(list, value, szName, sizeof(szName)) == 1 ? szName : "-1";
    }
    std::string PathOf(int32_t number)
    {
        char szPath[4096] = "untouched";
        return ZEVOBandwidthGetAddonConfigPath(number, szPath, sizeof(szPath)) == 0 ? szPath : "-1";
    }
    int ValueOf(const char *szName)
    {
        return ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, szName);
    }

    Box addon{kDirectory};
};

TEST_F(Names, TheSameWordMeansWhatItsOwnTableSays)
{
    EXPECT_EQ(NameOf(ZEVO_BW_OWNER_TYPE_LIST, 3), "all");
    EXPECT_EQ(NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, 15), "all");
    EXPECT_EQ(ZEVOBandwidthEnumToValue(ZEVO_BW_INTER_GROUP_POLICY_LIST, "min"), 4);
    EXPECT_EQ(ZEVOBandwidthEnumToValue(ZEVO_BW_OCCUPY_POLICY_LIST, "min"), 2);
    EXPECT_EQ(ZEVOBandwidthEnumToValue(ZEVO_BW_STATE_LIST, "NotExisted"), 0);
    EXPECT_THAT(TakeLog(), IsEmpty());

    char szThree[3] = "";
    EXPECT_EQ(ZEVOBandwidthEnumToName(ZEVO_BW_PROTOCOL_TYPE_LIST, 4, szThree, sizeof(szThree)), 1);
    EXPECT_STREQ(szThree, "ft");
}

TEST_F(Names, WhatNobodyKnowsFailsWithTwoLines)
{
    EXPECT_EQ(NameOf(ZEVO_BW_TRANSFER_TYPE_LIST, 3), "-1");
    ExpectSlot(0x0600, kFile);
    EXPECT_EQ(TakeLog(), Told(kFile, {"glob failed, iProtocol=3",
                                      "ZEVOBandwidthEnumToNameAddon failed, protocol=3"}));
    EXPECT_EQ(ZEVOBandwidthEnumToValue(ZEVO_BW_STATE_LIST, "notexisted"), -1);
    ExpectSlot(0x0600, kFile);
    EXPECT_EQ(TakeLog(),
              Told(kFile, {"glob failed, protocol=notexisted",
                           "ZEVOBandwidthEnumToValueAddon failed, protocol=notexisted"}));
    EXPECT_EQ(PathOf(4), "-1") << "built-in protocols have no add-on file";
    EXPECT_EQ(TakeLog(),
              Told(kFile, {"glob failed, iProtocol=4", "ZEVOBandwidthEnumToNameAddon failed"}));
}

TEST_F(Names, AnAddOnIsKnownInEveryTableAndHasAPath)
{
    addon.Write("backup_16.json", "");
    addon.Write("my_proto_20.json", "");
    EXPECT_EQ(NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, 16), "backup");
    EXPECT_EQ(NameOf(ZEVO_BW_STATE_LIST, 20), "my_proto");
    EXPECT_EQ(ValueOf("backup"), 16);
    EXPECT_EQ(ValueOf("my_proto"), 20);
    EXPECT_EQ(PathOf(16), "/usr/zevo/etc/bandwidth/addon//backup_16.json");
    EXPECT_THAT(TakeLog(), IsEmpty());

    EXPECT_EQ(ValueOf("back?p"), 16);

    addon.Wipe();
    EXPECT_EQ(ValueOf("back?p"), -1) << "patterns are not remembered";
    EXPECT_EQ(NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, 16), "backup") << "remembered";
    EXPECT_EQ(ValueOf("my_proto"), 20) << "remembered";
}

TEST_F(Names, SeveralFilesForOneNumberOrNameAreNoAnswer)
{
    for (const char *szName : {"x_5.json", "y_5.json", "foo_9.json", "foo_bar_10.json"})
        addon.Write(szName, "");
    EXPECT_EQ(NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, 5), "-1");
    ExpectSlot(0xA300, kFile);
    EXPECT_EQ(FirstLine(), "bandwidth_enum.cpp:# glob multi match, iProtocol=5");
    EXPECT_EQ(ValueOf("x"), 5);
    EXPECT_EQ(ValueOf("y"), 5);

    EXPECT_EQ(ValueOf("foo"), -1);
    ExpectSlot(0xA300, kFile);
    EXPECT_EQ(FirstLine(), "bandwidth_enum.cpp:# glob multi match, protocol=foo");
    EXPECT_EQ(ValueOf("foo_bar"), 10);
}

TEST_F(Names, AnAddOnWithoutANameOrANumberReadsAsEmptyOrZero)
{
    addon.Write("_7.json", "");
    addon.Write("z_abc.json", "");
    addon.Write("tail_6x.json", "");
    EXPECT_EQ(NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, 7), "");
    EXPECT_EQ(PathOf(7), "-1");
    EXPECT_EQ(TakeLog(), Told(kFile, {"ZEVOBandwidthEnumToNameAddon failed"}));
    EXPECT_EQ(ValueOf("z"), 0);
    ExpectSlot(0x2000, kFile);
    EXPECT_EQ(ValueOf("tail"), 6);
}

TEST_F(Names, ANameThatLeadsOutOfTheDirectoryMatchesNothing)
{
    std::filesystem::create_directory(std::string(kDirectory) + "sub");
    addon.Write("sub/inner_31.json", "");
    etc.Write("outer_32.json", "");
    for (const char *szName : {"sub/inner", "../outer", "/"}) {
        SCOPED_TRACE(szName);
        EXPECT_EQ(ZEVOBandwidthEnumToValueAddon(szName), -1);
        ExpectSlot(0x0600, kFile);
        EXPECT_EQ(TakeLog(), Told(kFile, {std::string("glob failed, protocol=") + szName}));
    }
}

TEST_F(Names, WhatWasFoundOnceIsFoundByEveryThreadAfterItsFileIsGone)
{
    addon.Write("kept_52.json", "");
    EXPECT_EQ(NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, 52), "kept");
    EXPECT_EQ(ValueOf("kept"), 52);
    addon.Wipe();
    addon.Make();
    for (int i = 0; i < 50; ++i)
        addon.Write("new" + std::to_string(i) + "_" + std::to_string(5200 + i) + ".json", "");
    std::vector<std::thread> threads;
    for (int first = 0; first < 4; ++first)
        threads.emplace_back([this, first] {
            for (int i = 0; i < 50; ++i) {
                const int number = (first * 13 + i) % 50; // added while the others look
                EXPECT_EQ(ValueOf(("new" + std::to_string(number)).c_str()), 5200 + number);
                EXPECT_EQ(NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, 52), "kept");
                EXPECT_EQ(ValueOf("kept"), 52);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
}

class ConfPath : public Names {
protected:
    std::string Path(int32_t protocol, size_t cb = 4095)
    {
        char szPath[4096] = "untouched";
        return ZEVOBandwidthConfPath(protocol, szPath, cb) == 0 ? szPath : "-1";
    }
};

TEST_F(ConfPath, EveryProtocolHasAFileAndAllOfThemTheGlobalOne)
{
    addon.Write("mirror_50.json", "");
    const std::string prefix = "/usr/zevo/etc/bandwidth/bandwidth.";
    for (const auto &[protocol, name] :
         std::initializer_list<std::pair<int, std::string>>{{1, "docuhall"},
                                                            {2, "webdav"},
                                                            {4, "ftp"},
                                                            {8, "rsync"},
                                                            {15, "global"},
                                                            {50, "mirror"}})
        EXPECT_EQ(Path(protocol), prefix + name + ".conf");
    EXPECT_EQ(Path(15, 25), "/usr/zevo/etc/bandwidth/");
    EXPECT_EQ(Path(4, 25), "/usr/zevo/etc/bandwidth/");
}

TEST_F(ConfPath, WhatHasNoNameHasNoPath)
{
    EXPECT_EQ(Path(0), "-1");
    ExpectSlot(0x0600, kFile);
    EXPECT_EQ(LastLine(), "bandwidth_conf_path.cpp:# Failed to get protocol for "
                          "protocol_type [0] [0x0600 bandwidth_enum.cpp:#]");
}

} // namespace
