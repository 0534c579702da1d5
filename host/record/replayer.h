/*
 * Plays a record (docs/recording.md) with the module alone in the process: every input at its place
 * in the order, every output compared. Nothing waits for time to pass. All on the calling thread.
 */
#ifndef HOST_REPLAYER_H
#define HOST_REPLAYER_H

#include <string>

namespace host {

struct ReplayOptions {
    std::string record;   // the file
    std::string module;   // the library
    bool partial = false; // the record may end anywhere
};

/*
 * Prints the counts, or the first difference with what went before it. The exit status: 0 when
 * there is no difference. Throws with a reason when the file cannot be read, is none of this
 * format and version, or is damaged; ends the process where that shows inside the module.
 */
int replay(const ReplayOptions &options);

} // namespace host

#endif
