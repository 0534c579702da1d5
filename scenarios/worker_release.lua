-- options: --speed 5
-- Waiters of an entry that is never freed are called back on the third tick after the first came.

icib.register{service=1}
icib.register{service=2}

local arrived = {}
on.notify(2, function(event, record, data)
    expect(event, "free")
    expect(record.outvlan, 7)
    expect(#record.waiters, #arrived + 1)
    arrived[#arrived + 1] = data
end)

expect(icib.add{service=1, fwd=10, stamp=1, outvlan=7}, 0)
local began = host.time()
expect(icib.update{service=2, fwd=20, stamp=2, outvlan=7, data="first"}, 0)
expect(icib.add{service=2, fwd=20, stamp=3, outvlan=7, data="second"}, 4)
expect(#icib.show{outvlan=7}.waiters, 2)

expect(host.wait_for(function() return #arrived == 2 end, 60), true)
print(string.format("released after %.1f seconds", host.time() - began))
expect(arrived, {"first", "second"})

-- The holder stays; the waiters are gone, also for the ticks to come.
local entry = icib.show{outvlan=7}
expect(entry.holder, {fwd=10, op="add", stamp=1})
expect(entry.waiters, {})
host.wait(4)
expect(#arrived, 2)
