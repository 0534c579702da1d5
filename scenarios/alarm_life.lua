-- options: --speed 400 --slot 5
-- An alarm's life: raised by a check, sent again after 120 probes (ten minutes), cleared by the
-- first probe that finds room, and every service of the table told.

local told = {}
for service = 0, 2 do
    notify.register{table="lem", service=service}
    on.notify(service, function(event, record, data, tab)
        told[#told + 1] = {service, event, tab}
        expect(record, nil)
        expect(data, nil)
    end)
end

engine.set{table="lem", total=2048, used=2047}
expect(alarm.check{type="lem"}, 0)
expect(alarm.list(), {})

engine.set{table="lem", used=2048}
local full = host.time()
expect(alarm.check{type="lem"}, 0)
local on = alarm.list()[1]
expect(on.slot, "slot 5")
expect(on.threshold, 2048)
expect(on.code, 170)
expect(on.raised, 1)

expect(host.wait_for("alarm", 9000), true)
expect(alarm.list()[1].raised >= 2, true)
print(string.format("sent again %.0f seconds after the raise", host.time() - full))
expect(host.time() - full > 590, true, "120 probes have passed")

-- Counts that the hook does not vouch for change nothing.
engine.set{table="lem", used=0, result=9}
host.wait(20)
expect(#alarm.list(), 1)
expect(told, {})

engine.set{table="lem", used=100}
expect(host.wait_for(function() return #alarm.list() == 0 end, 9000), true)
expect(host.wait_for(function() return #told == 3 end, 9000), true)
expect(alarm.list(), {})
expect(alarm.list{all=true}[1].on, false)
expect(told, {{0, "idle", "lem"}, {1, "idle", "lem"}, {2, "idle", "lem"}})
expect(alarm.check{type=3}, 1, "type 3 has no alarm")
