#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "bounded.h"

namespace {

constexpr char FILL = 'Z';
constexpr size_t GUARD = 16;

/* A destination of a given size between guards that nobody may write to. */
struct Destination {
    std::string bytes;
    size_t size;
    explicit Destination(size_t destSize, const std::string &text = "")
        : bytes(destSize + 2 * GUARD, FILL), size(destSize)
    {
        bytes.replace(GUARD, text.size(), text);
    }
    char *data()
    {
        return bytes.data() + GUARD;
    }
    std::string content() const
    {
        EXPECT_EQ(bytes.substr(0, GUARD) + bytes.substr(GUARD + size), std::string(2 * GUARD, FILL))
            << "written beyond the destination";
        return bytes.substr(GUARD, size);
    }
};

TEST(BoundedTest, CopiesAndSetsWithinBounds)
{
    const std::string source = "abcdefgh";
    struct {
        const char *src;
        size_t count;
        bool fails;
        std::string expected;
    } copies[] = {{source.c_str(), 4, false, "abcd"},
                  {source.c_str(), 2, false, "abZZ"},
                  {source.c_str(), 0, false, "ZZZZ"},
                  {nullptr, 0, false, "ZZZZ"},
                  {source.c_str(), 5, true, std::string(4, '\0')},
                  {source.c_str(), ~0ULL, true, std::string(4, '\0')},
                  {nullptr, 1, true, std::string(4, '\0')}};
    for (const auto &row : copies) {
        Destination dest(4);
        EXPECT_EQ(memcpy_s(dest.data(), 4, row.src, row.count) != 0, row.fails) << row.count;
        EXPECT_EQ(dest.content(), row.expected) << row.count;
    }
    for (const auto &[count, expected] :
         {std::pair{0u, "ZZZZ"}, {3u, "xxxZ"}, {4u, "xxxx"}, {5u, ""}}) {
        Destination dest(4);
        EXPECT_EQ(memset_s(dest.data(), 4, 'x', count) != 0, count > 4);
        EXPECT_EQ(dest.content(), count > 4 ? std::string(4, '\0') : expected);
    }
    Destination dest(8, "abcdefgh");
    EXPECT_EQ(memcpy_s(dest.data() + 2, 6, dest.data(), 6), 0) << "overlapping";
    EXPECT_EQ(dest.content(), "ababcdef");
    /* No size, one that wrapped, no destination. */
    for (const auto &[to, size] : {std::pair{dest.data(), size_t{0}},
                                   {dest.data(), ~size_t{0}},
                                   {static_cast<char *>(nullptr), size_t{4}}}) {
        EXPECT_NE(memcpy_s(to, size, "x", 1), 0);
        EXPECT_NE(memset_s(to, size, 1, 1), 0);
        EXPECT_NE(strcpy_s(to, size, "x"), 0);
        EXPECT_NE(strcat_s(to, size, "x"), 0);
        EXPECT_EQ(snprintf_s(to, size, 3, "x"), -1);
    }
    EXPECT_EQ(dest.content(), "ababcdef");
}

TEST(BoundedTest, CopiesAndAppendsTexts)
{
    for (const char *src : {"", "abcdefg", "abcdefgh", "abcdefghijkl"}) {
        const bool fits = strlen(src) < 8;
        Destination copied(8);
        EXPECT_EQ(strcpy_s(copied.data(), 8, src) == 0, fits) << src;
        EXPECT_STREQ(copied.content().c_str(), fits ? src : "");
    }
    struct {
        std::string held;
        const char *src;
        bool fails;
        std::string expected;
    } appends[] = {{std::string("ab\0", 3), "cdefg", false, "abcdefg"},
                   {std::string("ab\0", 3), "", false, "ab"},
                   {std::string("\0", 1), "abcdefg", false, "abcdefg"},
                   {std::string("ab\0", 3), "cdefgh", true, ""},
                   {std::string("ab\0", 3), nullptr, true, ""},
                   {"unending", "x", true, ""}};
    for (const auto &row : appends) {
        Destination dest(8, row.held);
        EXPECT_EQ(strcat_s(dest.data(), 8, row.src) != 0, row.fails);
        EXPECT_STREQ(dest.content().c_str(), row.expected.c_str());
    }
    Destination dest(8, std::string("abc\0", 4));
    EXPECT_EQ(strcat_s(dest.data(), 8, dest.data()), 0) << "overlapping";
    EXPECT_STREQ(dest.content().c_str(), "abcabc");
    EXPECT_NE(strcpy_s(dest.data(), 8, nullptr), 0);
    EXPECT_STREQ(dest.content().c_str(), "");
}

TEST(BoundedTest, FormatsUpToTheSize)
{
    Destination dest(16);
    EXPECT_EQ(sprintf_s(dest.data(), 16, "slot %d", -2147483647 - 1), -1);
    EXPECT_STREQ(dest.content().c_str(), "");
    EXPECT_EQ(sprintf_s(dest.data(), 16, "slot %d", -123456789), 15);
    EXPECT_STREQ(dest.content().c_str(), "slot -123456789");
    int (*unchecked)(char *, size_t, const char *, ...) = sprintf_s; /* lets a null format pass */
    EXPECT_EQ(unchecked(dest.data(), 16, nullptr), -1);
    EXPECT_STREQ(dest.content().c_str(), "");
}

__attribute__((format(printf, 3, 4))) void expectAsLibrary(size_t size, size_t limit,
                                                           const char *format, ...)
{
    char expected[512];
    va_list arguments;
    va_start(arguments, format);
    const int whole = vsnprintf(expected, sizeof(expected), format, arguments);
    va_end(arguments);
    ASSERT_LT(whole, static_cast<int>(sizeof(expected)));
    int result = whole;
    if (whole < 0 || (static_cast<size_t>(whole) >= size && limit >= size)) {
        result = -1;
        expected[0] = '\0';
    } else if (static_cast<size_t>(whole) > limit) {
        result = static_cast<int>(limit);
        expected[limit] = '\0';
    }
    Destination dest(size);
    va_start(arguments, format);
    ASSERT_EQ(vsnprintf_s(dest.data(), size, limit, format, arguments), result) << format;
    va_end(arguments);
    ASSERT_STREQ(dest.content().c_str(), expected) << format;
}

/*
 * Random formats against the C library: the conversions with a way of our own, and in each fourth
 * round others among them. The types of the arguments stay the same: int, wide, int, text, twice.
 */
TEST(BoundedTest, FormatsAsTheLibraryDoes)
{
    std::mt19937_64 random(77);
    const auto one = [&](const auto &list) { return list[random() % list.size()]; };
    const auto number = [&] { /* of random length, often at a boundary */
                              const u64 value = random() >> random() % 64;
                              u64 power = 1;
                              for (u64 n = random() % 20; n > 0; --n) {
                                  power *= 10;
                              }
                              return one(std::array<u64, 5>{value, power, power - 1, 0 - value,
                                                            1ULL << value % 64});
    };
    using Texts = std::vector<const char *>;
    const Texts ints = {"%d", "%d", "%u", "%u", "%d", "%x", "%5d", "%-3u|", "%+d", "%i"};
    const Texts wides = {"%llu", "%llu", "%llu", "%lld", "%20llu", "%llx"};
    const Texts texts = {"%s", "%s", "%s", "%9s", "%.2s"};
    const Texts plains = {"", ",", "Stamp:", "100%% ", "%%", " a longer piece of text "};
    const Texts strings = {"", "x", "icib", nullptr, "a text of some length, thirty-one"};

    for (u32 round = 0; round < 200000; ++round) {
        const bool simple = round % 4 != 0; /* else the less usual conversions as well */
        const auto pick = [&](const auto &list, size_t usual) {
            return list[random() % (simple ? usual : list.size())];
        };
        std::string format;
        for (u32 i = 0; i < 8; ++i) {
            format += one(plains);
            format += i % 4 == 3 ? pick(texts, 1) : i % 2 == 0 ? pick(ints, 4) : pick(wides, 1);
        }
        format += one(plains);
        const size_t size = random() % 3 == 0 ? 1 + random() % 150 : 256;
        const size_t limit = one(
            std::array<size_t, 6>{size - 1, size - 1, size - 1, size, random() % 300, ~size_t{0}});
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        expectAsLibrary(size, limit, format.c_str(), static_cast<int>(number()), number(),
                        static_cast<int>(number()), one(strings), static_cast<int>(number()),
                        number(), static_cast<int>(number()), one(strings));
#pragma GCC diagnostic pop
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST(BoundedTest, ChecksDescriptors)
{
    EXPECT_EQ(epoll_create_s(0), -1);
    EXPECT_EQ(epoll_create_s(-8), -1);
    const int descriptor = epoll_create_s(8);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(close_s(descriptor), 0);
    EXPECT_EQ(close_s(descriptor), -1);
    EXPECT_EQ(close_s(-1), -1);
}

} // namespace
