-- A service competes with the component for one entry: l2rsm-host client.lua, where libclient.so is.

local routing = 1
local entry = {port=7, outvlan=100}

print("== Routing holds the entry when the component comes: it must wait")
icib.register{service=routing}
expect(icib.add{service=routing, fwd=10, stamp=100, port=7, outvlan=100}, 0)
expect(host.load("libclient.so"), 0)
expect(icib.show(entry), {holder={fwd=10, op="add", stamp=100},
                          waiters={{fwd=20, op="add", stamp=200}}})

print("== Routing gives the entry up: the component is told, takes the entry and frees the token")
expect(icib.delete{service=routing, fwd=10, stamp=300, port=7, outvlan=100}, 0)
expect(icib.free{service=routing, op="delete", port=7, outvlan=100}, 0)
expect(icib.show(entry), {holder={fwd=20, op="add", stamp=200}, waiters={}})
