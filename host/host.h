/*
 * The host: a device's forwarding manager reduced to what the module needs, around one scenario.
 *
 * Lives as long as the process: the module has no shut-down, its worker keeps calling the host
 * until the process is gone.
 */
#ifndef HOST_HOST_H
#define HOST_HOST_H

#include <string>

#include "engine.h"
#include "inspect.h"
#include "journal.h"
#include "ledger.h"
#include "leftovers.h"
#include "log_capture.h"
#include "log_history.h"
#include "metrics.h"
#include "module.h"
#include "notifications.h"
#include "printer.h"
#include "recorder.h"
#include "scenario.h"
#include "services.h"
#include "vlan_engine.h"

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

struct Host {
    Clock clock;
    Journal journal{clock};
    Printer printer;
    Services services{journal};
    Engine engine{journal};
    VlanEngine vlanEngine{[this](std::string_view line) { journal.write(Kind::text, line, {}); }};
    LogCapture logCapture;
    LogHistory logHistory;
    Recorder recorder{clock};
    Module module{journal};
    Metrics metrics{module, services};
    Inspector inspector;
    Ledger ledger{journal, inspector};
    Leftovers leftovers;
    bool json = false; // what the show functions print when they are not told
    Scenario scenario{*this};
    Notifications notifications{journal,
                                [this](const Notification &n) { return scenario.handle(n); }};

    /* Starts services and module and lends the hooks. Throws with a reason. */
    void start(const Options &options);
};

} // namespace host

#endif
