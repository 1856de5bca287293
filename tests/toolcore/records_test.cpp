// The owning command record: copies are independent, moves hand over, and
// nothing is freed twice (the sanitizer builds check that).
#include <gtest/gtest.h>

#include <cwchar>
#include <utility>

#include "VideoConsoleCore.h"

namespace VideoConsoleCore {
namespace {

TEST(FwUpdateCommand, CopiesAndMovesItsTexts) {
    FwUpdateCommand a;
    a.start = 1;
    a.target = 1;
    a.SetUsbFilePath(L"fw.hex");
    a.SetMcuFilePath(L"m\u00e9.bin");
    a.SetMcuFilePath(a.McuFilePath());  // its own text: kept
    EXPECT_STREQ(a.McuFilePath(), L"m\u00e9.bin");

    FwUpdateCommand copy(a);
    FwUpdateCommand assigned;
    assigned.SetVersionText(L"old");
    assigned = a;
    EXPECT_NE(copy.UsbFilePath(), a.UsbFilePath());
    EXPECT_STREQ(assigned.UsbFilePath(), L"fw.hex");
    EXPECT_EQ(assigned.VersionText(), nullptr);
    EXPECT_EQ(assigned.target, 1);

    FwUpdateCommand moved(std::move(copy));
    EXPECT_STREQ(moved.McuFilePath(), L"m\u00e9.bin");
    EXPECT_EQ(copy.McuFilePath(), nullptr);  // NOLINT(bugprone-use-after-move)
    assigned = std::move(moved);
    EXPECT_STREQ(assigned.McuFilePath(), L"m\u00e9.bin");
    EXPECT_EQ(assigned.start, 1);
}

}  // namespace
}  // namespace VideoConsoleCore
