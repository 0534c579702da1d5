#include "host.h"

#include "zir_timer.h"

namespace host {

void Host::start(const Options &options)
{
    journal.attach(printer, {Kind::call, Kind::notify, Kind::result, Kind::alarm, Kind::text});
    if (options.trace) {
        journal.attach(printer, {Kind::hook, Kind::service, Kind::log});
    }
    journal.attach(logCapture, {Kind::log});
    journal.attach(logHistory, {Kind::log});
    json = options.json;
    if (json) {
        printer.sendEventsToStandardError();
    }
    module.setLedger(ledger);
    // The timers of phase 2 run at the speed that is set when they are started.
    clock.setSpeed(options.speed);
    ZIR_TimerSetSpeed(options.speed);
    if (!options.record.empty()) {
        recorder.start(options.record, {{"script", textOf(options.script)},
                                        {"speed", options.speed},
                                        {"slot", options.services.slot},
                                        {"partition", options.services.partition}});
    }
    if (!options.metrics.empty()) {
        journal.attach(metrics, {Kind::call, Kind::notify, Kind::result, Kind::log});
    }
    services.start(options.services);
    module.start(options.module);
    if (!options.metrics.empty()) {
        metrics.start(options.metrics, options.script, options.module);
    }
    inspector.attach(module, services.partition());
    leftovers.remember(module);
    engine.setVlanTranslation(
        [this](const VlanEditInfo &info, u16 profileId, u16 commandId, u32 flag) {
            return vlanEngine.program(&info, profileId, commandId, flag);
        });
    engine.lendHooks(module.table());
}

} // namespace host
