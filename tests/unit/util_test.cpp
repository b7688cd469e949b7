#include "util/scoped_handles.h"
#include "util/socket_comm.h"
#include "util/string_utility.h"
#include "util/strl.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>

TEST(StringUtility, Utf8ToIso8859) {
    struct {
        const char* in;
        const char* out;
    } const cases[] = {
        {"", ""},
        {"Gr\xC3\xBCn", "Gr\xFCn"},
        {"\xC3\x80x", "\xC0x"},   // the lowest continuation
        {"\x80\xBF", "\x80\xBF"}, // stray continuation bytes stay
        {"a\xC0\x81z", "a\x01z"}, // an overlong sequence is one
        {"\xDF\xBFz", "\xFFz"},
        {"\xE0\x80\x81z", "\x01z"},
        {"\xEF\xBF\xBFz", "\xFFz"},
        {"a\xC3"
         "Ab",
         "a"},                      // malformed: the text ends
        {"a\xC3", "a"},             // cut off
        {"\xE2\x82\xACz", "\xACz"}, // euro sign, lossy
        {"\xE2\x82", ""},
        {"x\xE2\x28\xA1y", "x"},
        {"a\xF0\x9F\x98\x80!", "a"}, // its low eight bits are zero, which ends the text
        {"\xF0\x9F\x98\x81!", "\x01!"},
        {"\xF0\x9F\x98z", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(theStringUtility.ConvertUtf8StringToIso8859String(c.in), c.out) << c.in;
    }
}

TEST(StringUtility, ConversionsEndAtTheirBuffers) {
    const std::string latin(600, '\xE4');
    const std::string utf8 = theStringUtility.ConvertIso8859StringToUtf8String(latin);
    EXPECT_EQ(utf8.size(), 510u);
    EXPECT_EQ(theStringUtility.ConvertUtf8StringToIso8859String(utf8), latin.substr(0, 255));
    EXPECT_EQ(theStringUtility.ConvertUtf8StringToIso8859String(std::string(9999, 'a')).size(),
              255u);
    EXPECT_EQ(theStringUtility.ConvertIso8859StringToUtf8String("Gr\xFCn"), "Gr\xC3\xBCn");
}

TEST(StringUtility, WhitespaceIsStripped) {
    struct {
        const char *in, *removed, *left, *right;
    } const cases[] = {
        {"", "", "", ""},
        {" \t\r\n", "", "", ""},
        {" \ta b \t\r\n", "a b", "a b \t\r\n", " \ta b"},
        {"\n x", "\n x", "x", "\n x"},              // line ends are only removed at the end
        {" \vx\f\n", "\vx\f", "\vx\f\n", " \vx\f"}, // these two stay
        {"x", "x", "x", "x"},
    };
    for (const auto& c : cases) {
        char text[20];
        strlcpy(text, c.in, sizeof text);
        theStringUtility.RemoveWhitespaceFromString(text);
        EXPECT_STREQ(text, c.removed);
        std::string copy = c.in;
        theStringUtility.RemoveWhitespaceFromString(&copy);
        EXPECT_EQ(copy, c.removed);
        EXPECT_EQ(theStringUtility.TrimLeft(c.in), c.left);
        EXPECT_EQ(theStringUtility.TrimRight(c.in), c.right);
        EXPECT_EQ(theStringUtility.TrimLeftAndRight(c.in), theStringUtility.TrimLeft(c.right));
    }
    theStringUtility.RemoveWhitespaceFromString(static_cast<char*>(nullptr));
    theStringUtility.RemoveWhitespaceFromString(static_cast<std::string*>(nullptr));
}

TEST(StringUtility, NumbersInThreeBases) {
    struct {
        int value, mode;
        const char* text;
    } const cases[] = {
        {42, 1, "42"},   {-42, 0, "-42"},       {42, 2, "o52"},
        {42, 3, "0x2a"}, {-1, 3, "0xffffffff"}, {INT32_MIN, 99, "-2147483648"},
    };
    for (const auto& c : cases) {
        std::string text = "before";
        theStringUtility.IntToString(c.value, &text, c.mode);
        EXPECT_EQ(text, c.text);
    }
    theStringUtility.IntToString(1, nullptr, 1);
}

TEST(BoundedCopy, TellsTheWholeLength) {
    struct {
        const char *before, *source;
        size_t size;
        const char* after;
        size_t result;
    } const cases[] = {
        {"", "abcdef", 4, "abc", 6}, {"", "abc", 4, "abc", 3},     {"ab", "cdef", 4, "abc", 6},
        {"ab", "", 4, "ab", 2},      {"abcd", "ef", 3, "abcd", 5}, // no terminator within 3
        {"x", "abc", 0, "x", 3},
    };
    for (const auto& c : cases) {
        char text[16] = {};
        memcpy(text, c.before, strlen(c.before));
        EXPECT_EQ(strlcat(text, c.source, c.size), c.result);
        EXPECT_STREQ(text, c.after);
    }
    char text[4] = "xyz";
    EXPECT_EQ(strlcpy(text, "abcdef", sizeof text), 6u);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(strlcpy(text, "q", 0), 1u);
    EXPECT_STREQ(text, "abc");
}

TEST(SocketComm, DelayWaitsForSoLong) {
    using Clock = std::chrono::steady_clock;
    for (const int ms : {-1, 0, 30}) {
        const auto begin = Clock::now();
        EXPECT_EQ(Delay(ms), 0);
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(ms));
    }
}

TEST(ScopedHandles, DescriptorIsClosedOnceByItsLastOwner) {
    const auto isOpen = [](int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; };
    ScopedFd first(open("/dev/null", O_RDONLY));
    ASSERT_TRUE(first);
    const int raw = first.get();
    {
        ScopedFd second(std::move(first));
        EXPECT_FALSE(first);
        ScopedFd& same = second;
        second = std::move(same);
        EXPECT_TRUE(isOpen(raw));
    }
    errno = EINTR;
    EXPECT_FALSE(isOpen(raw));

    ScopedFd owner(open("/dev/null", O_RDONLY));
    const int old = owner.get();
    owner.reset(open("/dev/zero", O_RDONLY));
    EXPECT_TRUE(owner);
    EXPECT_FALSE(owner.get() == old);
    EXPECT_FALSE(isOpen(old));
    const int given = owner.release();
    owner.reset();
    EXPECT_TRUE(isOpen(given));
    errno = EACCES;
    ScopedFd(given).reset();
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(ScopedFd(open("/nonexistent", O_RDONLY)));
}
