#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tarnifs/names.h"
#include "tests/support/catalogue_fixture.h"

namespace {

const char kComposedE[] = "caf\xC3\xA9";      // café, é as U+00E9
const char kDecomposedE[] = "cafe\xCC\x81";   // café, e + U+0301

class NamesTest : public MountContextTest {};

TEST_F(NamesTest, SlashesBecomeColonsAndEveryReplacementIsFinal) {
    EXPECT_EQ(chkInvalidString("AC/DC"), "AC:DC");
    EXPECT_EQ(chkInvalidString("a:b"), "a:b");
    EXPECT_EQ(chkInvalidString("//"), "::");
    // The replacement is never searched again, so this ends.
    EXPECT_EQ(replaceAll("aaa", "a", "aa"), "aaaaaa");
    EXPECT_EQ(replaceAll("abcabc", "bc", ""), "aa");
}

TEST_F(NamesTest, DecomposedNameIsComposedShorterAndTerminated) {
    char out[32];
    memset(out, 0, sizeof(out));
    ASSERT_EQ(getUTF8MACName(kDecomposedE, out), 0);
    EXPECT_STREQ(out, kComposedE);
    EXPECT_EQ(strlen(out), strlen(kDecomposedE) - 1);

    // Already composed text stays as it is.
    memset(out, 0, sizeof(out));
    ASSERT_EQ(getUTF8MACName(kComposedE, out), 0);
    EXPECT_STREQ(out, kComposedE);

    // Cleaning and composing happen together.
    memset(out, 0, sizeof(out));
    ASSERT_EQ(getUTF8MACName("Beyonce\xCC\x81/Jay", out), 0);
    EXPECT_STREQ(out, "Beyonc\xC3\xA9:Jay");
}

TEST_F(NamesTest, AsciiNameFillsItsRoomAndIsNotTerminatedByTheConversion) {
    char out[16];
    memset(out, 'X', sizeof(out));
    ASSERT_EQ(getUTF8MACName("notes", out), 0);
    EXPECT_EQ(std::string(out, 5), "notes");
    EXPECT_EQ(out[5], 'X');
}

TEST_F(NamesTest, InvalidUtf8FailsLogsAndLeavesTheRawBytes) {
    const char invalid[] = "bad\xFF\xFEname";
    char out[32];
    memset(out, 0, sizeof(out));
    EXPECT_LT(getUTF8MACName(invalid, out), 0);
    EXPECT_STREQ(out, invalid);
    EXPECT_TRUE(logContains("utf8_to_utf8mac iconv() failed."));
    EXPECT_TRUE(logContains("getUTF8MACName GetEncodedString failed"));
    EXPECT_EQ(getUTF8MACName(nullptr, out), -1);
}

TEST_F(NamesTest, ConversionsThatDoNotFitFailWhole) {
    char in[] = "e\xCC\x81t\xC3\xA9";  // ét é
    char out[2] = {'X', 'X'};
    EXPECT_EQ(utf8_to_utf8mac(in, static_cast<int>(strlen(in)), out, sizeof(out)), -1);
    EXPECT_EQ(out[0], 'X');  // nothing partial is written
}

TEST_F(NamesTest, CharacterSetFamily) {
    EXPECT_STREQ(GetStringfromCode(1), "UCS-2LE");
    EXPECT_STREQ(GetStringfromCode(2), "UCS-2BE");
    EXPECT_STREQ(GetStringfromCode(3), "UTF-8");
    EXPECT_STREQ(GetStringfromCode(255), "EUC-KR");
    EXPECT_STREQ(GetStringfromCode(7), "ISO-8859-1");

    // UCS-2LE "é" comes out decomposed.
    char ucs2[] = {'\xE9', '\x00'};
    char out[16];
    memset(out, 0, sizeof(out));
    ASSERT_EQ(unicode_to_utf8(1, ucs2, 2, out, sizeof(out)), 0);
    EXPECT_STREQ(out, "e\xCC\x81");

    // Latin-1 is the fallback for unknown codes.
    char latin1[] = "caf\xE9";
    memset(out, 0, sizeof(out));
    ASSERT_EQ(unicode_to_utf8(42, latin1, 4, out, sizeof(out)), 0);
    EXPECT_STREQ(out, kDecomposedE);

    // Korean from EUC-KR: 한 (B0 A1 is 가).
    char euckr[] = "\xB0\xA1";
    memset(out, 0, sizeof(out));
    ASSERT_EQ(unicode_to_utf8(255, euckr, 2, out, sizeof(out)), 0);
    // 가 decomposes into its two jamo.
    EXPECT_STREQ(out, "\xE1\x84\x80\xE1\x85\xA1");

    // A decomposed name reaches UCS-2 composed: one code unit for é.
    char decomposed[] = "e\xCC\x81";
    char wide[8];
    memset(wide, 0, sizeof(wide));
    ASSERT_EQ(utf8_to_unicode(decomposed, 3, wide, sizeof(wide)), 0);
    EXPECT_EQ(static_cast<unsigned char>(wide[0]), 0xE9);
    EXPECT_EQ(wide[1], 0);
    EXPECT_EQ(wide[2], 0);

    // Invalid input to a character set: logged with errno.
    char broken[] = "\xB0";
    EXPECT_EQ(unicode_to_utf8(3, broken, 1, out, sizeof(out)), -1);
    bool logged = false;
    for (const std::string &line : logMessages())
        if (line.rfind("unicode_to_utf8 iconv() failed. ErrNO : ", 0) == 0) logged = true;
    EXPECT_TRUE(logged);
}

} // namespace
