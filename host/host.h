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
#include "journal.h"
#include "log_capture.h"
#include "module.h"
#include "notifications.h"
#include "printer.h"
#include "scenario.h"
#include "services.h"
#include "vlan_engine.h"

namespace host {

struct Options {
    std::string script{};
    std::string module; // the library
    ServiceOptions services{};
    u32 speed = 1;
    bool trace = false; // print hooks, services and log lines, too
};

struct Host {
    Clock clock;
    Journal journal{clock};
    Printer printer;
    Services services{journal};
    Engine engine{journal};
    VlanEngine vlanEngine{[this](std::string_view line) { journal.write(Kind::text, line, {}); }};
    LogCapture logCapture;
    Module module{journal};
    Scenario scenario{*this};
    Notifications notifications{journal,
                                [this](const Notification &n) { return scenario.handle(n); }};

    /* Starts services and module and lends the hooks. Throws with a reason. */
    void start(const Options &options);
};

} // namespace host

#endif
