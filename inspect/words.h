/* Words for the module's numbers, and the numbers that belong to a word. */
#ifndef INSPECT_WORDS_H
#define INSPECT_WORDS_H

#include <array>

#include "qor_types.h"

namespace inspect {

/* A table whose entries are handed out by token. */
enum class TokenTable { icib, ipat };

const char *tableName(TokenTable table);

/* "icib", "ecib", "ipat", "lem", "sem"; "none" for 2, "?" for a number that is none. */
const char *tableName(u32 table);
/* "add", "update", "delete"; "none" for 0. */
const char *opName(u32 op);
const char *eventName(u32 event);         // "free", "idle"
const char *directionName(u32 direction); // "ingress", "egress"

const char *debugLevelName(u32 level);    // "error", "warning", "info"
const char *blackBoxLevelName(u32 level); // "event", "error"

/* What a token result means: "proceed", "refused", ... */
const char *tokenMeaning(u32 result);

/* A table of the forwarding engine. Its alarm type is the number of its count hook. */
struct EngineTable {
    const char *name;
    u32 type;
    u32 alarmCode;
};
extern const std::array<EngineTable, 5> engineTables;

/* "icib_pp" for type 0, for an alarm code 581; "?" for a number that is none. */
const char *engineTableName(u32 type);
const char *alarmTableName(u32 alarmCode);

} // namespace inspect

#endif
