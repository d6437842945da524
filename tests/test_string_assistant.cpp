// The string helpers: the buffer size protocol, formatting of texts of any
// length, substring replacement, and the code-page and ASCII wrappers.
#include <gtest/gtest.h>
#include <langinfo.h>

#include <clocale>
#include <cstdarg>
#include <cstring>
#include <string>

#include "GroundKit/OS/OS_CLibrary.h"
#include "GroundKit/OS/OS_UTF8Helper.h"
#include "GroundKit/StringAssistant/StringAssistant.h"

namespace {

int formattedLength(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int length = OS::CLibrary::String::getFormattedLength(format, ap);
    va_end(ap);
    return length;
}

std::string replace(const std::string& text, const std::string& from, const std::string& to,
                    bool all) {
    return CStringAssistant::replaceSTLString(text, from, to, all);
}

}  // namespace

TEST(SizeProtocol, NullBufferAsksForLengthPlusOne) {
    unsigned long len = 0;
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("tcp://1.2.3.4:5", nullptr, len));
    EXPECT_EQ(len, 16u);
    len = 99;
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("", nullptr, len));
    EXPECT_EQ(len, 1u);
}

TEST(SizeProtocol, ExactBufferReceivesTextAndTerminator) {
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    unsigned long len = 6;
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("hello", buffer, len));
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(len, 6u);
    EXPECT_EQ(buffer[6], 'x');  // nothing written past the terminator

    len = sizeof buffer;  // a larger buffer reports the size used
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("", buffer, len));
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(len, 1u);
}

TEST(SizeProtocol, ShortBufferFailsAndChangesNothing) {
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    unsigned long len = 5;
    EXPECT_FALSE(CStringAssistant::getBaseStringFromSTLString("hello", buffer, len));
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(8, 'x'));

    len = 0;
    EXPECT_FALSE(CStringAssistant::getBaseStringFromSTLString("", buffer, len));
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(buffer[0], 'x');
}

TEST(Replace, FirstOrAllOccurrences) {
    EXPECT_EQ(replace("a-b-c", "-", "+", false), "a+b-c");
    EXPECT_EQ(replace("a-b-c", "-", "+", true), "a+b+c");
    EXPECT_EQ(replace("a-b-c", "*", "+", true), "a-b-c");
    EXPECT_EQ(replace("a-b-c", "-", "-", true), "a-b-c");
    EXPECT_EQ(replace("a-b-c", "", "", true), "a-b-c");  // equal, so no endless search
    EXPECT_EQ(replace("", "-", "+", true), "");
}

TEST(Replace, LengthChangesAndEdges) {
    EXPECT_EQ(replace("a-b-c", "-", "<=>", true), "a<=>b<=>c");
    EXPECT_EQ(replace("a<=>b<=>c", "<=>", "", true), "abc");
    EXPECT_EQ(replace("-a-", "-", "+", true), "+a+");
    EXPECT_EQ(replace("-a-", "-", "+", false), "+a-");
    EXPECT_EQ(replace("-", "-", "long", true), "long");
    EXPECT_EQ(replace("aaaa", "aa", "b", true), "bb");
    EXPECT_EQ(replace("aaa", "aa", "b", true), "ba");
    // The search resumes after the replaced text, so a replacement that
    // contains the pattern is not replaced again.
    EXPECT_EQ(replace("x.y", ".", "..", true), "x..y");
}

TEST(Format, PlatformLengthCountsTheTerminator) {
    EXPECT_EQ(formattedLength("%d.%d", 1, 10), 5);
    EXPECT_EQ(formattedLength(""), 1);
    EXPECT_EQ(formattedLength(nullptr), 0);
}

TEST(Format, LongTextsComeOutWhole) {
    for (size_t size : {1u, 255u, 256u, 257u, 1023u, 1024u, 1025u, 4095u, 4096u, 4097u, 10000u,
                        65535u, 65536u, 65537u}) {
        const std::string text(size, 'q');
        EXPECT_EQ(CStringAssistant::format("%s", text.c_str()), text) << size;
        EXPECT_EQ(CStringAssistant::format("%s|%u", text.c_str(), 42u), text + "|42") << size;
    }
    EXPECT_EQ(CStringAssistant::format("tcp://%s:%u", "127.0.0.1", 65535u), "tcp://127.0.0.1:65535");
}

TEST(Format, EmptyOrUnrenderableGivesEmptyString) {
    EXPECT_EQ(CStringAssistant::format("%s", ""), "");
    // In the C locale a wide character outside ASCII cannot be rendered: the
    // platform reports length 0 and the result is empty.
    ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(formattedLength("%ls", L"\u00e9"), 0);
    EXPECT_EQ(CStringAssistant::format("%ls", L"\u00e9"), "");
}

TEST(Utf8Helper, CLocalePassesTextThrough) {
    ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    const std::string texts[] = {"", "plain ascii", "h\xc3\xa9llo \xe2\x82\xac \xf0\x9f\x98\x80"};
    for (const std::string& text : texts) {
        EXPECT_EQ(OS::UTF8Helper::oemFromUTF8(text.c_str()), text);
        EXPECT_EQ(OS::UTF8Helper::oemToUTF8(text.c_str()), text);
        EXPECT_EQ(OS::UTF8Helper::oemToUTF8(text), text);
    }
    EXPECT_EQ(OS::UTF8Helper::oemFromUTF8(nullptr), "");
}

TEST(Utf8Helper, Latin1LocaleConverts) {
    const char* chosen = nullptr;
    for (const char* name : {"en_US.ISO-8859-1", "de_DE.ISO-8859-1", "fr_FR.ISO-8859-1",
                             "en_US.iso88591", "de_DE", "fr_FR"}) {
        if (std::setlocale(LC_ALL, name) != nullptr &&
            std::strcmp(nl_langinfo(CODESET), "ISO-8859-1") == 0) {
            chosen = name;
            break;
        }
    }
    std::setlocale(LC_ALL, chosen != nullptr ? chosen : "C");
    if (chosen == nullptr) GTEST_SKIP() << "no Latin-1 locale installed";
    const std::string fromUtf8 = OS::UTF8Helper::oemFromUTF8("caf\xc3\xa9");
    const std::string toUtf8 = OS::UTF8Helper::oemToUTF8("caf\xe9");
    const std::string euro = OS::UTF8Helper::oemFromUTF8("\xe2\x82\xac");
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(fromUtf8, "caf\xe9") << chosen;
    EXPECT_EQ(toUtf8, "caf\xc3\xa9") << chosen;
    EXPECT_EQ(euro, "") << chosen;  // not representable in Latin-1
}

TEST(IsAscii, BytesBelow0x80Only) {
    EXPECT_TRUE(OS::CLibrary::String::isAscii("\x7f"));
    EXPECT_TRUE(OS::CLibrary::String::isAscii(""));
    EXPECT_FALSE(OS::CLibrary::String::isAscii("\x80"));
    EXPECT_FALSE(OS::CLibrary::String::isAscii("abc\xff"));
    EXPECT_FALSE(OS::CLibrary::String::isAscii(nullptr));
}
