-- options: --speed 5 --slot 3
-- What the module does for the services of a device, told from its start: entries, alarms, VLAN edits.

local routing, bridging, multicast = 1, 2, 3 -- service types

print("== Three services will share the ICIB table")
for _, service in ipairs{routing, bridging, multicast} do
    icib.register{service=service}
end

print("== Routing takes an entry; bridging must wait for it, and multicast comes too late")
local entry = {port=3, outvlan=100}
local function with(fields)
    for name, value in pairs(entry) do
        fields[name] = value
    end
    return fields
end

expect(icib.add(with{service=routing, fwd=10, stamp=100, data="route 10.0.0.0/8"}), 0)
expect(icib.add(with{service=bridging, fwd=20, stamp=200, data="bridge vlan 100"}), 4)
expect(icib.add(with{service=multicast, fwd=30, stamp=50, data="group 7"}), 1)
local shown = icib.show(entry)
expect(shown.holder.fwd, 10)
expect(#shown.waiters, 1)

print("== Routing gives the entry up: bridging is told at once, and takes it")
on.notify(bridging, function(event, record, data)
    if event == "free" then
        expect(data, "bridge vlan 100")
        expect(icib.add{service=bridging, fwd=20, stamp=200, data=data,
                        port=record.port, outvlan=record.outvlan}, 0)
    end
end)
expect(icib.delete(with{service=routing, fwd=10, stamp=300}), 0)
expect(icib.free(with{service=routing, op="delete"}), 0)
expect(icib.show(entry).holder.fwd, 20)

print("== The ICIB_PP table runs full: the next add raises its alarm")
engine.set{table="icib_pp", total=4096, used=4096}
expect(icib.add{service=routing, fwd=10, stamp=400, port=4, outvlan=200}, 0)
expect(alarm.list()[1].table, "icib_pp")

print("== Multicast waits for an entry that nobody frees: the worker tells it on its third tick")
local released = false
on.notify(multicast, function(event)
    released = released or event == "free"
end)
expect(icib.add(with{service=multicast, fwd=30, stamp=500, data="group 7"}), 4)
expect(host.wait_for(function() return released end, 30), true)
expect(#icib.show(entry).waiters, 0)

print("== Room in the table: the next probe clears the alarm and tells the services")
local told = {}
for _, service in ipairs{routing, bridging, multicast} do
    on.notify(service, function(event) told[#told + 1] = event end)
end
engine.set{table="icib_pp", used=10}
expect(host.wait_for(function() return #told == 3 end, 60), true)
expect(told, {"idle", "idle", "idle"})
expect(#alarm.list(), 0)

print("== Routing and bridging both need a service tag on ingress: two profiles, one command")
local function service_tag(service)
    return {direction="ingress", service=service, format=2, outer_tag=2, outer_tpid=1,
            outer_tpid_action=2, inner_tag=4}
end
local code, profile = vlan.assign(service_tag(routing))
expect(code, 0)
expect(vlan.assign(service_tag(bridging)), 0)
engine.send{direction="ingress", profile=profile, tags={{vid=100, pri=5}}, outer_vid=2000}

print("== Routing gives its edit back; the command stays until bridging does too")
expect(vlan.release(service_tag(routing)), 0)
expect(#vlan.check(), 0)
expect(#vlan.show().ingress.commands, 1)
expect(vlan.release(service_tag(bridging)), 0)
expect(#vlan.show().ingress.commands, 0)
