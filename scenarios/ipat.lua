-- IPAT entries: a repeat by the holder's own type proceeds, a free removes the record whatever was
-- taken, calls every waiter back and takes off the one that came last.

for service = 1, 3 do
    ipat.register{service=service}
end
local calls = {}
for service = 2, 3 do
    on.notify(service, function(event, record, data)
        expect(event, "free")
        expect(record.unit, 1)
        expect(record.port, 48)
        calls[#calls + 1] = data
        return service == 3 and 5 or 0
    end)
end

expect(ipat.add{service=1, fwd=10, stamp=10, unit=1, port=48}, 0)
expect(ipat.add{service=1, fwd=10, stamp=5, unit=1, port=48}, 0, "own type, any stamp")
expect(ipat.add{service=2, fwd=20, stamp=4, unit=1, port=48}, 1, "older than the holder")
expect(ipat.add{service=2, fwd=20, stamp=20, unit=1, port=48, data="A"}, 4)
expect(ipat.delete{service=3, fwd=30, stamp=1, unit=1, port=48, data="B"}, 4)
expect(ipat.add{service=2, fwd=20, stamp=20, unit=2, port=48}, 0, "another unit, another entry")

expect(ipat.free{service=1, op="add", unit=1, port=48}, 5, "what the last callback returned")
expect(calls, {"A", "B"})
expect(ipat.free{service=1, op="add", unit=1, port=48}, 0)
expect(calls, {"A", "B", "A"})
expect(ipat.free{service=1, op="add", unit=1, port=48}, 0)
expect(#calls, 3)

local code, word = ipat.update{service=3, fwd=30, stamp=1, unit=1, port=48}
expect(code, 3)
expect(word, "no entry, waiting")
expect(ipat.add{service=2, fwd=20, stamp=9, unit=1, port=48}, 4, "an update claims the entry")
