-- Two services, one entry: the second waits until the first frees it.
icib.register{service=1}
icib.register{service=2}
on.notify(2, function(event, record, data)
    icib.add{service=2, fwd=20, stamp=200, port=record.port, outvlan=record.outvlan}
end)

expect(icib.add{service=1, fwd=10, stamp=100, port=3, outvlan=100}, 0)
expect(icib.add{service=2, fwd=20, stamp=200, port=3, outvlan=100, data="cfg-7"}, 4)
icib.show{port=3, outvlan=100}
icib.delete{service=1, fwd=10, stamp=300, port=3, outvlan=100}
icib.free{service=1, op="delete", port=3, outvlan=100}
expect(icib.show{port=3, outvlan=100}.holder.fwd, 20)
