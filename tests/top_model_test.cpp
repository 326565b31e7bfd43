// What "top" puts on a screen, at every size and with every name, and what keys do to it.
#include <gtest/gtest.h>

#include <clocale>
#include <cwchar>
#include <string>
#include <vector>

#include <zevobandwidth.h>

#include "top/model.hpp"

namespace {

using namespace tool;

std::string TextOf(const std::vector<TopLine> &lines)
{
    std::string text;
    for (const TopLine &line : lines) {
        for (const TopSpan &span : line)
            text += span.text;
        text += '\n';
    }
    return text;
}

TopTransfer Upload(const std::string &user, pid_t pid, std::uint64_t speedBps,
                   const std::string &file)
{
    TopTransfer transfer;
    transfer.uid = 2001;
    transfer.pid = pid;
    transfer.direction = ZEVO_BW_TRANSFER_UPLOAD;
    transfer.user = user;
    transfer.service = "rsync";
    transfer.file = file;
    transfer.speedBps = speedBps;
    transfer.allowedBps = 1024;
    transfer.limitBps = 2048;
    return transfer;
}

class Top : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }

    // After so many seconds.
    void Show(std::vector<TopTransfer> transfers, std::int64_t seconds = 0)
    {
        TopFigures figures;
        figures.nowUs = seconds * 1'000'000;
        figures.transfers = std::move(transfers);
        figures.groups = groups;
        model.Update(std::move(figures));
    }
    void Type(const std::string &text)
    {
        for (const char c : text)
            EXPECT_EQ(model.Press({TopKey::kText, {c}}), TopAction::kNone);
    }
    std::string Screen(std::size_t rows = 24, std::size_t columns = 80)
    {
        return TextOf(model.Compose(rows, columns));
    }
    bool Shows(const std::string &text) { return Screen().find(text) != std::string::npos; }
    pid_t SelectedPid() const { return model.Selected() == nullptr ? 0 : model.Selected()->pid; }

    std::vector<TopGroup> groups;
    TopModel model{true};
};

TEST_F(Top, TextIsCutAndFilledByColumnsNotBytes)
{
    EXPECT_EQ(Fit("abc", 5), "abc  ");
    EXPECT_EQ(Fit("abc", 5, true), "  abc");
    EXPECT_EQ(Fit("日本", 3), "日 ");
    EXPECT_EQ(Fit("e\u0301t", 2), "e\u0301t");
    EXPECT_EQ(Fit("a\x1B\xC3", 4), "a?? ");
    EXPECT_EQ(FitEnd("/volume/本.tar", 8), "..本.tar");
    EXPECT_EQ(FitEnd("/volume/本.tar", 7), "...tar ");
}

TEST_F(Top, TheHistoryIsDrawnAgainstWhatIsAllowed)
{
    EXPECT_EQ(HistoryGraph({0, 50, 100}, 100, 4, true), " ▁▅█");
    EXPECT_EQ(HistoryGraph({0, 50, 100}, 200, 3, true), "▁▃▅");
    EXPECT_EQ(HistoryGraph({1, 2, 300}, 0, 2, false), "_#");
    EXPECT_EQ(HistoryGraph({0}, 0, 1, true), "▁");
}

// As the terminal will count them; -1 with a control character in it.
int ColumnsOf(const TopLine &line)
{
    const std::string text = TextOf({line});
    std::wstring wide(text.size(), L'\0');
    wide.resize(std::mbstowcs(wide.data(), text.c_str(), text.size()));
    wide.pop_back(); // the line end
    return ::wcswidth(wide.c_str(), wide.size());
}

TEST_F(Top, EveryScreenIsFilledExactlyAndHoldsNothingHarmful)
{
    for (int i = 0; i < 12; ++i)
        groups.push_back({"st\x1B[2Jff", "rsync", ZEVO_BW_TRANSFER_UPLOAD, 1, UINT64_MAX, 1});
    std::vector<TopTransfer> transfers;
    for (int i = 0; i < 30; ++i)
        transfers.push_back(Upload("al\nice", i, UINT64_MAX, "\x1B[2J\xFF日本\xC2\x9B.iso"));
    transfers.back().limitBps.reset();
    transfers.back().progress = UINT32_MAX;
    Show(transfers);
    for (const char *keys : {"", "/iso", "x", "?"}) {
        Type(keys);
        for (std::size_t rows = 0; rows <= 30; rows += 3) {
            for (std::size_t columns = 0; columns <= 130; ++columns) {
                const std::vector<TopLine> lines = model.Compose(rows, columns);
                ASSERT_EQ(lines.size(), rows);
                for (const TopLine &line : lines)
                    ASSERT_EQ(ColumnsOf(line), static_cast<int>(columns)) << TextOf({line});
            }
        }
        model.Press({TopKey::kEscape, ""});
    }
}

TEST_F(Top, ANarrowScreenKeepsWhatMattersMost)
{
    Show({Upload("alice", 4711, 512, "photos")});
    const std::string usual = Screen();
    for (const char *text : {"alice", "4711", "512 B", "1.00 KiB", "50%", "photos", "HISTORY"})
        EXPECT_NE(usual.find(text), std::string::npos) << text;
    const std::string narrow = Screen(10, 40);
    for (const char *text : {"alice", "512 B", "photos"})
        EXPECT_NE(narrow.find(text), std::string::npos) << text;
    EXPECT_EQ(narrow.find("4711"), std::string::npos);
    Type("x");
    const std::string question = Screen(10, 40);
    EXPECT_NE(question.find("4711?"), std::string::npos);
    EXPECT_NE(question.find("(y/n)"), std::string::npos);
}

TEST_F(Top, TheSelectionStaysWithItsTransfer)
{
    Show({Upload("alice", 1, 300, "a"), Upload("bob", 2, 200, "b"), Upload("carol", 3, 100, "c")});
    EXPECT_EQ(SelectedPid(), 1);
    model.Press({TopKey::kDown, ""});
    EXPECT_EQ(SelectedPid(), 2);
    Show({Upload("alice", 1, 300, "a"), Upload("bob", 2, 50, "b"), Upload("carol", 3, 100, "c")});
    EXPECT_EQ(SelectedPid(), 2);
    model.Press({TopKey::kUp, ""});
    EXPECT_EQ(SelectedPid(), 3);
    Type("r");
    model.Press({TopKey::kHome, ""});
    EXPECT_EQ(SelectedPid(), 2);
    Show({});
    EXPECT_EQ(SelectedPid(), 0);
    model.Press({TopKey::kDown, ""});
    EXPECT_TRUE(Shows("No limited transfers"));
}

TEST_F(Top, AFilterShowsWhatHoldsTheText)
{
    Show({Upload("alice", 1, 1, "Photos"), Upload("bob", 2, 1, "music")});
    Type("/pHotx");
    model.Press({TopKey::kErase, ""});
    EXPECT_TRUE(Shows("Photos"));
    EXPECT_FALSE(Shows("music"));
    model.Press({TopKey::kEnter, ""});
    Type("s"); // no more text of the filter
    EXPECT_FALSE(Shows("music"));
    model.Press({TopKey::kEscape, ""});
    EXPECT_TRUE(Shows("music"));
}

TEST_F(Top, OnlyAYesStopsAndOnlyWhatTheQuestionNamed)
{
    Show({Upload("alice", 1, 2, "a"), Upload("bob", 2, 1, "b")});
    Type("x");
    EXPECT_TRUE(Shows("Stop the upload of alice, process 1? (y/n)"));
    Type("n");
    Type("y");
    Type("x");
    EXPECT_EQ(model.Press({TopKey::kText, "y"}), TopAction::kStop);
    EXPECT_EQ(SelectedPid(), 1);
    Type("x");
    Show({Upload("bob", 2, 1, "b")});
    EXPECT_TRUE(Shows("has ended by itself"));
    Type("y");
    EXPECT_FALSE(Shows("has ended by itself"));
}

TEST_F(Top, AMessageGoesByItself)
{
    Show({Upload("alice", 1, 2, "a")}, 100);
    model.Say("Process 1: stopped after 20 ms");
    Show({}, 103);
    EXPECT_TRUE(Shows("stopped after"));
    Show({}, 200);
    EXPECT_FALSE(Shows("stopped after"));
}

TEST_F(Top, TheTimeLeftFollowsFromTheProgress)
{
    TopTransfer one = Upload("alice", 1, 1, "a");
    one.progress = 1000;
    Show({one});
    EXPECT_FALSE(Shows(":"));
    one.progress = 2000;
    Show({one}, 10);
    EXPECT_TRUE(Shows("1:20"));
    one.progress = 500; // another file
    Show({one}, 11);
    EXPECT_FALSE(Shows(":"));
}

TEST_F(Top, ATerminalWithoutUtf8GetsAscii)
{
    TopModel plain(false);
    TopFigures figures;
    figures.transfers = {Upload("jürgen", 1, 1, "日本")};
    figures.groups = {{"größe", "rsync", ZEVO_BW_TRANSFER_UPLOAD, 1, 5, 10}};
    plain.Update(figures);
    for (const char c : TextOf(plain.Compose(24, 80)))
        ASSERT_EQ(c & 0x80, 0);
}

} // namespace
