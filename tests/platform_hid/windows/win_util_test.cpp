// Text conversion and buffer reading shared by the Windows backend.
#include "hid/backend/windows/win_util.h"

#include <gtest/gtest.h>


namespace {

using namespace VideoConsoleCore::hid::win;

TEST(WinText, Utf8AndUtf16RoundTrip) {
    // Two-, three- and four-byte UTF-8 (the last a surrogate pair in UTF-16).
    const std::string utf8 = "Gr\xC3\xB6\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x8E\xA5";
    const std::wstring wide = Utf8ToWide(utf8);
    const std::wstring expected = {L'G', L'r', 0x00F6, 0x00DF, L'e', L' ', 0x20AC,
                                   L' ', 0xD83C, 0xDFA5};
    EXPECT_EQ(wide, expected);
    EXPECT_EQ(WideToUtf8(wide), utf8);
}

TEST(WinText, EmbeddedNulsAreKeptAndEmptyStaysEmpty) {
    const std::string withNul("a\0b", 3);
    EXPECT_EQ(Utf8ToWide(withNul), std::wstring(L"a\0b", 3));
    EXPECT_EQ(Utf8ToWide(""), L"");
    EXPECT_EQ(WideToUtf8(L""), "");
}

TEST(WinText, BrokenInputConvertsToNothing) {
    EXPECT_EQ(Utf8ToWide("abc\xC3"), L"");       // cut-off sequence
    EXPECT_EQ(Utf8ToWide("\xFF\xFE" "abc"), L"");  // bytes that never occur in UTF-8
    const std::wstring loneSurrogate = {L'a', 0xD800, L'b'};
    EXPECT_EQ(WideToUtf8(loneSurrogate), "");
}

TEST(WinText, WideFromBufferStopsAtTheFirstNulOrTheEnd) {
    const wchar_t text[] = L"HID\0tail";
    EXPECT_EQ(WideFromBuffer(text, sizeof(text)), L"HID");
    // No terminator within the given bytes: all of them count.
    EXPECT_EQ(WideFromBuffer(text, 3 * sizeof(wchar_t)), L"HID");
    EXPECT_EQ(WideFromBuffer(text, 2 * sizeof(wchar_t)), L"HI");
    // An odd trailing byte is not half a character.
    EXPECT_EQ(WideFromBuffer(text, 2 * sizeof(wchar_t) + 1), L"HI");
    EXPECT_EQ(WideFromBuffer(text, 0), L"");
    EXPECT_EQ(WideFromBuffer(nullptr, 8), L"");
}

TEST(WinText, AsciiUpperLeavesOtherCharactersAlone) {
    EXPECT_EQ(AsciiUpper(std::string("usb\\vid_2b89&pid_5a1c\\sn-\xC3\xA4z")),
              "USB\\VID_2B89&PID_5A1C\\SN-\xC3\xA4Z");
    EXPECT_EQ(AsciiUpper(std::wstring(L"{36fc9e60}\\0012\u00e4")), L"{36FC9E60}\\0012\u00e4");
}

}  // namespace
