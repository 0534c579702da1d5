#include "assembly.h"

#include "inspect/record_json.h"
#include "zir_timer.h"

namespace host {

void start(Host &host, const Options &options)
{
    host.journal.attach(host.printer,
                        {Kind::call, Kind::notify, Kind::result, Kind::alarm, Kind::text});
    if (options.trace) {
        host.journal.attach(host.printer, {Kind::hook, Kind::service, Kind::log});
    }
    host.journal.attach(host.logCapture, {Kind::log});
    host.journal.attach(host.logHistory, {Kind::log});
    host.json = options.json;
    if (host.json) {
        host.printer.sendEventsToStandardError();
    }
    // From the outside in: what is said of a call comes beneath its result, and the scenario hears of a
    // notification when everybody else has. The recorder comes last, next to the module.
    for (crossing::Listener *listener : std::initializer_list<crossing::Listener *>{
             &host.notifications, &host.ledger, &host.reasons, &host.lines}) {
        crossing::attach(*listener);
    }
    // The timers of phase 2 run at the speed that is set when they are started.
    host.clock.setSpeed(options.speed);
    ZIR_TimerSetSpeed(options.speed);
    if (!options.record.empty()) {
        host.recorder.start(options.record, {{"script", textOf(options.script)},
                                             {"speed", options.speed},
                                             {"slot", options.services.slot},
                                             {"partition", options.services.partition}});
    }
    if (!options.metrics.empty()) {
        host.journal.attach(host.metrics, {Kind::call, Kind::notify, Kind::result, Kind::log});
    }
    host.services.start(options.services);
    host.module.start(options.module);
    host.inspector.attach(host.module, host.services.partition());
    if (!options.metrics.empty()) {
        host.metrics.start(options.metrics, options.script, options.module);
    }
    host.leftovers.remember(host.module);
    const Printer::Quiet quiet;
    host.hooks.lend(host.module.table());
}

} // namespace host
