/* Puts the host together for a run. */
#ifndef HOST_ASSEMBLY_H
#define HOST_ASSEMBLY_H

#include <string>

#include "script/host.h"

namespace host {

struct Options {
    std::string script{};
    std::string module; // the library
    ServiceOptions services{};
    u32 speed = 1;
    bool trace = false;       // print hooks, services and log lines, too
    bool json = false;        // show functions print JSON, events go to standard error
    bool interactive = false; // a prompt, after the script if there is one
    std::string record{}, replay{}, metrics{}; // files, "" for none
    bool partial = false;                      // the record to replay may end anywhere
};

/* Starts services and module and lends the hooks. Throws with a reason. */
void start(Host &host, const Options &options);

} // namespace host

#endif
