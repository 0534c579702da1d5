-- Two services share an edit command and release it in either order; the engine follows.

-- C-tagged frames (format 2) get an outer S-tag with the VLAN id of the forwarding entry.
local function add_s_tag(service)
    return {direction = "ingress", service = service, format = 2,
            outer_tag = 2, outer_tpid = 1, outer_tpid_action = 2, inner_tag = 4}
end
local frame = {{vid = 100, pri = 5}}
local edited = {{tpid = 0x88A8, vid = 2000, pri = 5}, {tpid = 0x8100, vid = 100, pri = 0}}
local untouched = {{tpid = 0x8100, vid = 100, pri = 5}}

local function send(profile)
    return (engine.send{direction = "ingress", profile = profile, tags = frame, outer_vid = 2000})
end

-- The engine's tables after each step, and that the module's books say the same.
local function step(mappings)
    expect(#vlan.check(), 0, "differences")
    expect(#engine.show().ingress.mappings, mappings, "mappings in the engine")
end

for _, order in ipairs{{5, 9}, {9, 5}} do
    local profile = {}
    for service_number, service in ipairs{5, 9} do
        local code, id = vlan.assign(add_s_tag(service))
        expect(code, 0)
        profile[service] = id
        step(service_number)
    end
    expect(profile, {[5] = 4, [9] = 5}, "a profile for each service")
    expect(#vlan.show().ingress.commands, 1, "commands, shared")
    expect(send(4), edited)
    expect(send(5), edited)

    local first, last = order[1], order[2]
    expect(vlan.release(add_s_tag(first)), 0)
    step(1)
    expect(send(profile[first]), untouched)
    expect(send(profile[last]), edited)
    expect(#vlan.show().ingress.commands, 1, "commands, still needed")

    expect(vlan.release(add_s_tag(last)), 0)
    step(0)
    expect(send(profile[last]), untouched)
    expect(vlan.show().ingress, {profiles = {}, commands = {}, mappings = {}}, "what is booked")
end

-- The same service under two tag formats: the first release must not take the edit from the second.
local untagged = add_s_tag(5)
untagged.format = 1
untagged.direction = "egress"
local tagged = add_s_tag(5)
tagged.direction = "egress"
expect(vlan.assign(untagged), 0)
expect(vlan.assign(tagged), 0)
expect(vlan.release(untagged), 0)
expect(#vlan.check(), 0)
expect(vlan.dump(), {
    "[L2RSM]IveProfile: NULL",
    "[L2RSM]IveCmdMapping: all zero data",
    "[L2RSM]IveCmd: NULL",
    "[L2RSM]EveProfile: profId:4, srvType:5; ",
    "[L2RSM]EveCmdMapping: profId:4, fmt:2, cmd:2; ",
    "[L2RSM]EveCmd: cmd:2, o/iTag:2/4, oTpid/Act:1/2, iTpid/Act:0/1, o/iPri:1/1; ",
})
expect(vlan.release(tagged), 0)
expect(vlan.show().egress, {profiles = {}, commands = {}, mappings = {}})

-- Reserved ids: service 2 has its own profile for each kind of outer TPID, and can give back both.
for _, tpid in ipairs{1, 3} do
    local request = {direction = "ingress", service = 2, format = 4, outer_tag = 3, outer_tpid = tpid}
    local code, id = vlan.assign(request)
    expect({code, id}, {0, tpid == 1 and 0 or 1})
    expect(vlan.release(request), 0)
    expect(#vlan.check(), 0)
end

-- What the module refuses changes nothing.
expect(vlan.assign{direction = "ingress", service = 13, format = 2}, 1)
expect(vlan.release(add_s_tag(5)), 0, "nothing assigned is nothing to do")
step(0)
