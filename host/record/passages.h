/*
 * What passes the crossing, as a record has it (docs/recording.md): to JSON, and back to answers and
 * calls. Reading throws std::exception when a value is missing or does not fit.
 */
#ifndef HOST_PASSAGES_H
#define HOST_PASSAGES_H

#include <string>

#include "crossing/crossing.h"
#include "inspect/record_json.h"

namespace host {

using namespace inspect;

const char *operationOf(const crossing::Event &event);
/* Before the call; an object. */
Value argumentsOf(const crossing::Event &event);
/* After it: results of a call into the module, the answer to one out of it; an object. */
Value resultsOf(const crossing::Passage &passage);

/* Puts a recorded answer in the call's place. */
void answer(crossing::Passage &passage, const Value &recorded);

/* Makes a recorded call into the module; throws when there is no such operation. */
void play(const std::string &operation, const Value &arguments);

} // namespace host

#endif
