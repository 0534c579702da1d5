/* Completion of a line of the prompt: pure functions of what has been typed. */
#ifndef HOST_COMPLETE_H
#define HOST_COMPLETE_H

#include <string>
#include <string_view>
#include <vector>

namespace host {

/* Characters that end the word being completed; a full name, "icib.add", is one word. */
inline constexpr const char *wordBreaks = " \t\n\"'{}()[]=,;<>+-*/%#~";

/*
 * What the word may become that begins at `start` of `line`, in the functions' order: functions,
 * or within the braces of one its fields, or the names that a field takes behind `field="`.
 */
std::vector<std::string> completions(std::string_view line, std::size_t start,
                                     std::string_view word);

} // namespace host

#endif
