/*
 * What the module did to the world around it, as one ordered list of short texts.
 *
 * Fake services (services.h) and fault points (faults.h) write to it, and so may a test's own hooks
 * and callbacks. A test clears it, acts, and compares what is there:
 *
 *     journal::Clear();
 *     EXPECT_EQ(QorL2ResHookRegister(4, hook), 0u);
 *     EXPECT_TRUE(journal::Is({"log 4: L2ResHookRegister Success, Type:4.",
 *                              "bbox 0: L2ResHookRegister Success, Type:4."}));
 *
 * A message of the module appears as "log L: text", L the debug log's own level (2 errors, 3 start-up
 * failures, 4 all others); errors and events follow as "bbox L: text" (1 errors, 0 events). Where
 * the black box is not the point, compare with Only(kLog). Any thread may write.
 */
#ifndef TESTS_SUPPORT_JOURNAL_H
#define TESTS_SUPPORT_JOURNAL_H

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "qor_types.h"

namespace journal {

enum Kind : unsigned {
    kLog = 1,      /* "log L: text" */
    kBlackBox = 2, /* "bbox L: text" */
    kAlarm = 4,    /* operations of the log service's alarm objects, see services.h */
    kService = 8,  /* the other services' operations, see services.h */
    kHook = 16,    /* written by tests: hooks called */
    kNotify = 32,  /* written by tests: notify callbacks called */
    kCall = 64,    /* platform calls, when faults.h is told to record them */
    kAll = 127
};

using Lines = std::vector<std::string>;

/* The parts with blanks between them: "addPara 3 6 4 4096". */
template <class First, class... Others>
std::string Join(const First &first, const Others &...others)
{
    std::ostringstream text;
    text << first;
    ((text << ' ' << others), ...);
    return text.str();
}

void Write(Kind kind, std::string text);
void Clear();

/* The entries of these kinds, oldest first. */
Lines Only(unsigned kinds);

/* The same as one text: "log 4: one | log 4: another". */
std::string Text(unsigned kinds = kAll);

/* Succeeds when the entries of these kinds are exactly the expected ones; else shows both lists. */
testing::AssertionResult Is(const Lines &expected, unsigned kinds = kAll);
testing::AssertionResult Equal(const Lines &actual, const Lines &expected);

/* What the journal has of an error in the debug log. */
std::string Error(const std::string &text);

} // namespace journal

#endif
