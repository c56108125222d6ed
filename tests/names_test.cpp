#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tarnifs/names.h"
#include "tests/support/catalogue_fixture.h"

namespace {

const char kComposedE[] = "caf\xC3\xA9";      // café, é as U+00E9
const char kDecomposedE[] = "cafe\xCC\x81";   // café, e + U+0301

class NamesTest : public MountContextTest {};

// getUTF8MACName into a zeroed buffer; its result in *result.
std::string macName(const char *name, int *result) {
    char out[32] = {};
    *result = getUTF8MACName(name, out);
    return out;
}

TEST_F(NamesTest, SlashesBecomeColonsAndEveryReplacementIsFinal) {
    EXPECT_EQ(chkInvalidString("AC/DC"), "AC:DC");
    EXPECT_EQ(chkInvalidString("a:b"), "a:b");
    EXPECT_EQ(chkInvalidString("//"), "::");
    // The replacement is never searched again, so this ends.
    EXPECT_EQ(replaceAll("aaa", "a", "aa"), "aaaaaa");
    EXPECT_EQ(replaceAll("abcabc", "bc", ""), "aa");
}

TEST_F(NamesTest, NamesAreComposedCleanedAndKeptRawWhenInvalid) {
    int result = -1;
    // A decomposed name comes out composed, shorter and terminated; composed
    // text stays as it is; cleaning and composing happen together.
    EXPECT_EQ(macName(kDecomposedE, &result), kComposedE);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(macName(kComposedE, &result), kComposedE);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(macName("Beyonce\xCC\x81/Jay", &result), "Beyonc\xC3\xA9:Jay");
    EXPECT_EQ(result, 0);

    // An ASCII name fills its room and is not terminated by the conversion.
    char out[16];
    memset(out, 'X', sizeof(out));
    ASSERT_EQ(getUTF8MACName("notes", out), 0);
    EXPECT_EQ(std::string(out, 5), "notes");
    EXPECT_EQ(out[5], 'X');

    // Invalid UTF-8 fails, is logged and leaves the raw bytes.
    const char invalid[] = "bad\xFF\xFEname";
    EXPECT_EQ(macName(invalid, &result), invalid);
    EXPECT_LT(result, 0);
    EXPECT_TRUE(logContains("utf8_to_utf8mac iconv() failed."));
    EXPECT_TRUE(logContains("getUTF8MACName GetEncodedString failed"));
    EXPECT_EQ(getUTF8MACName(nullptr, out), -1);

    // A conversion that does not fit fails whole: nothing partial is written.
    char in[] = "e\xCC\x81t\xC3\xA9";  // ét é
    char small[2] = {'X', 'X'};
    EXPECT_EQ(utf8_to_utf8mac(in, static_cast<int>(strlen(in)), small, sizeof(small)), -1);
    EXPECT_EQ(small[0], 'X');
}

TEST_F(NamesTest, CharacterSetFamily) {
    EXPECT_STREQ(GetStringfromCode(1), "UCS-2LE");
    EXPECT_STREQ(GetStringfromCode(2), "UCS-2BE");
    EXPECT_STREQ(GetStringfromCode(3), "UTF-8");
    EXPECT_STREQ(GetStringfromCode(255), "EUC-KR");
    EXPECT_STREQ(GetStringfromCode(7), "ISO-8859-1");

    struct Case {
        int code;
        std::string in, out;
    };
    for (const Case &c : {Case{1, std::string("\xE9\x00", 2), "e\xCC\x81"},  // UCS-2LE "é" comes out decomposed
                          Case{42, "caf\xE9", kDecomposedE},                 // Latin-1 is the fallback for unknown codes
                          Case{255, "\xB0\xA1", "\xE1\x84\x80\xE1\x85\xA1"}}) {  // EUC-KR 가, as its two jamo
        SCOPED_TRACE(c.code);
        std::string in = c.in;
        char out[16] = {};
        ASSERT_EQ(unicode_to_utf8(c.code, &in[0], static_cast<int>(in.size()), out, sizeof(out)), 0);
        EXPECT_EQ(out, c.out);
    }

    // A decomposed name reaches UCS-2 composed: one code unit for é.
    char decomposed[] = "e\xCC\x81";
    char wide[8] = {};
    ASSERT_EQ(utf8_to_unicode(decomposed, 3, wide, sizeof(wide)), 0);
    EXPECT_EQ(std::string(wide, 3), std::string("\xE9\x00\x00", 3));

    // Invalid input to a character set: logged with errno.
    char broken[] = "\xB0";
    char out[16] = {};
    EXPECT_EQ(unicode_to_utf8(3, broken, 1, out, sizeof(out)), -1);
    EXPECT_TRUE(logContains("unicode_to_utf8 iconv() failed. ErrNO : " + std::to_string(EILSEQ)));
}

} // namespace
