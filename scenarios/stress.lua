-- options: --speed 20
-- Four clients on threads of their own compete for a few entries; the worker's ticks join in.

local counts = host.stress{clients=4, operations=5000, keys=8}
expect(counts.requests > 5000, true)
expect(counts.notifications > 0, true)
expect(counts.granted_in_callbacks > 0, true)

-- A scenario goes on as before.
local told
icib.register{service=1}
on.notify(1, function(_, _, data) told = data end)
expect(icib.add{service=2, fwd=1, stamp=1, outvlan=1}, 0)
expect(icib.add{service=1, fwd=2, stamp=2, outvlan=1, data="after"}, 4)
expect(icib.free{service=2, op="add", outvlan=1}, 0)
expect(told, "after")
