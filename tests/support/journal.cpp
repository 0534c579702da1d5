#include "support/journal.h"

#include <algorithm>
#include <mutex>
#include <sstream>
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

testing::AssertionResult Equal(const Lines &actual, const Lines &expected)
{
    if (actual == expected) {
        return testing::AssertionSuccess();
    }
    // Side by side from the first difference on; what agrees before it is only counted.
    const auto [first, other] =
        std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    std::ostringstream text;
    text << "the first " << first - actual.begin() << " lines agree, then";
    text << "\n  actual (" << actual.size() << " in all):";
    std::for_each(first, actual.end(), [&](const auto &line) { text << "\n    " << line; });
    text << "\n  expected (" << expected.size() << " in all):";
    std::for_each(other, expected.end(), [&](const auto &line) { text << "\n    " << line; });
    return testing::AssertionFailure() << text.str();
}

testing::AssertionResult Is(const Lines &expected, unsigned kinds)
{
    return Equal(Only(kinds), expected);
}

std::string Error(const std::string &text)
{
    return "log 2: " + text;
}

std::string Event(const std::string &text)
{
    return "log 4: " + text;
}

std::string Startup(const std::string &text)
{
    return "log 3: " + text;
}

std::string Trace(const std::string &text)
{
    return "log 4: " + text;
}

} // namespace journal
