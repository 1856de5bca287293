// The setting.cfg line format and the reading of numeric values.
#include <gtest/gtest.h>

#include "settings/settings_file.h"
#include "support/test_support.h"

using VideoConsoleCore::ParseIntegerSetting;
using VideoConsoleCore::ParseSettingsLine;
using VideoConsoleCore::ReadSettingsFile;
using VideoConsoleCore::SettingsTable;

namespace {
SettingsTable Parse(std::initializer_list<std::string> lines) {
    SettingsTable table;
    for (const std::string& line : lines) ParseSettingsLine(line, table);
    return table;
}
}  // namespace

TEST(SettingsLine, KeyIsUpToTheFirstEqualsSign) {
    const SettingsTable table = Parse({"Key=a=b", "DevDrvID0=USB\\VID_FFF0&PID_0001"});
    EXPECT_EQ(table.at("Key"), "a=b");
    EXPECT_EQ(table.at("DevDrvID0"), "USB\\VID_FFF0&PID_0001");
}

TEST(SettingsLine, LinesWithoutPairAddNothing) {
    const SettingsTable table = Parse({"Key=", "no equals", "", "=value", "="});
    EXPECT_TRUE(table.empty());
}

TEST(SettingsLine, BlanksAndCaseAreKept) {
    const SettingsTable table = Parse({" EnableLocalLogging=0", "enablelocallogging=0",
                                       "EnableLocalLogging=0 "});
    EXPECT_EQ(table.at(" EnableLocalLogging"), "0");
    EXPECT_EQ(table.at("enablelocallogging"), "0");
    EXPECT_EQ(table.at("EnableLocalLogging"), "0 ");
}

TEST(SettingsLine, LaterLineWins) {
    const SettingsTable table = Parse({"FW_Overwrite=1", "FW_Overwrite=99"});
    EXPECT_EQ(table.at("FW_Overwrite"), "99");
}

TEST(SettingsFile, ReadsWindowsAndUnixLineEndsAlike) {
    korvsdk_test::TempFolder folder;
    const auto file = folder.path() / "setting.cfg";
    korvsdk_test::WriteFile(file, "A=1\r\nB=2\nC=3");  // last line without a line break
    SettingsTable table;
    ASSERT_TRUE(ReadSettingsFile(file.string(), table));
    EXPECT_EQ(table, (SettingsTable{{"A", "1"}, {"B", "2"}, {"C", "3"}}));
}

TEST(SettingsFile, MissingFileLeavesTableAlone) {
    SettingsTable table{{"Kept", "yes"}};
    EXPECT_FALSE(ReadSettingsFile("/no/such/folder/setting.cfg", table));
    EXPECT_FALSE(ReadSettingsFile("", table));
    // A folder, which a stream opens on Linux: the caller falls back to
    // setting.cfg then.
    EXPECT_FALSE(ReadSettingsFile(std::filesystem::temp_directory_path().string(), table));
    EXPECT_EQ(table.size(), 1u);
}

TEST(SettingsFile, BinaryJunkAndHugeLinesAreHandled) {
    korvsdk_test::TempFolder folder;
    const auto file = folder.path() / "setting.cfg";
    std::string content("\x00\x01\xff=\xfe\x00z\n", 8);
    content += std::string(1 << 20, 'x') + "\n";  // a megabyte without '='
    content += "Big=" + std::string(1 << 16, 'v') + "\n";
    content += "After=ok\n";
    korvsdk_test::WriteFile(file, content);
    SettingsTable table;
    ASSERT_TRUE(ReadSettingsFile(file.string(), table));
    EXPECT_EQ(table.at(std::string("\x00\x01\xff", 3)), std::string("\xfe\x00z", 3));
    EXPECT_EQ(table.at("Big").size(), 1u << 16);
    EXPECT_EQ(table.at("After"), "ok");
    EXPECT_EQ(table.size(), 3u);
}

TEST(IntegerSetting, BaseFollowsThePrefix) {
    EXPECT_EQ(ParseIntegerSetting("0x10", 0), 16);
    EXPECT_EQ(ParseIntegerSetting("010", 0), 8);
    EXPECT_EQ(ParseIntegerSetting("10", 0), 10);
    EXPECT_EQ(ParseIntegerSetting("010", 10), 10);
}

TEST(IntegerSetting, LeadingNumberCountsAndGarbageIsMissing) {
    EXPECT_EQ(ParseIntegerSetting(" 7", 10), 7);
    EXPECT_EQ(ParseIntegerSetting("3abc", 10), 3);
    EXPECT_EQ(ParseIntegerSetting("-2", 10), -2);
    EXPECT_EQ(ParseIntegerSetting("abc", 10), std::nullopt);
    EXPECT_EQ(ParseIntegerSetting("", 0), std::nullopt);
    EXPECT_EQ(ParseIntegerSetting("99999999999", 10), std::nullopt);
}
