#include "support/journal.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace journal {
namespace {

// Never destroyed: a worker task may still write while the process exits.
std::mutex g_mutex;
auto &g_entries = *new std::vector<std::pair<Kind, std::string>>;

} // namespace

void Write(Kind kind, std::string text)
{
    std::lock_guard lock(g_mutex);
    g_entries.emplace_back(kind, std::move(text));
}

void Clear()
{
    std::lock_guard lock(g_mutex);
    g_entries.clear();
}

Lines Only(unsigned kinds)
{
    std::lock_guard lock(g_mutex);
    Lines lines;
    for (const auto &[kind, text] : g_entries) {
        if ((kind & kinds) != 0) {
            lines.push_back(text);
        }
    }
    return lines;
}

std::string Text(unsigned kinds)
{
    std::string text;
    for (const std::string &line : Only(kinds)) {
        text += (text.empty() ? "" : " | ") + line;
    }
    return text;
}

testing::AssertionResult Equal(const Lines &actual, const Lines &expected)
{
    if (actual == expected) {
        return testing::AssertionSuccess();
    }
    // Both from the first difference on; what agrees before it is only counted.
    const auto [first, other] =
        std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    return testing::AssertionFailure()
           << "the first " << first - actual.begin()
           << " lines agree, then\n  actual: " << testing::PrintToString(Lines(first, actual.end()))
           << "\n  expected: " << testing::PrintToString(Lines(other, expected.end()));
}

testing::AssertionResult Is(const Lines &expected, unsigned kinds)
{
    return Equal(Only(kinds), expected);
}

std::string Error(const std::string &text)
{
    return "log 2: " + text;
}

} // namespace journal
