/*
 * The host: a device's forwarding manager reduced to what the module needs, around one scenario.
 *
 * Lives as long as the process: the module has no shut-down, its worker keeps calling the host
 * until the process is gone.
 */
#ifndef HOST_HOST_H
#define HOST_HOST_H

#include "device/hooks.h"
#include "device/module.h"
#include "device/services.h"
#include "engine/engine.h"
#include "engine/vlan_engine.h"
#include "inspect/module_state.h"
#include "record/recorder.h"
#include "script/notifications.h"
#include "script/scenario.h"
#include "watch/journal.h"
#include "watch/ledger.h"
#include "watch/leftovers.h"
#include "watch/lines.h"
#include "watch/log_capture.h"
#include "watch/log_history.h"
#include "watch/metrics.h"
#include "watch/printer.h"
#include "watch/reasons.h"

namespace host {

struct Host {
    Clock clock;
    Journal journal{clock};
    Printer printer;
    Services services{clock, [this](std::string_view what, const Alarm &alarm) {
                          journal.write(Kind::alarm, what,
                                        {{"threshold", alarm.threshold},
                                         {"code", alarm.code},
                                         {"text", std::string_view(alarm.text)}});
                      }};
    Engine engine;
    VlanEngine vlanEngine{[this](std::string_view line) { journal.write(Kind::text, line, {}); }};
    Hooks hooks{engine, vlanEngine};
    LogCapture logCapture;
    LogHistory logHistory;
    Recorder recorder{clock};
    Module module;
    Lines lines{journal};
    Reasons reasons{journal, module};
    Metrics metrics{module, services};
    Inspector inspector;
    Ledger ledger{journal, inspector};
    Leftovers leftovers;
    bool json = false; // what the show functions print when they are not told
    Scenario scenario{*this};
    Notifications notifications{[this](const Notification &n) { return scenario.handle(n); }};
};

} // namespace host

#endif
