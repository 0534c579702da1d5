-- Files that are no client component. HERE is where the test runs.
local here = os.getenv("HERE")
local script = debug.getinfo(1, "S").source:match("^@(.*)/")

local function complaint(file)
    local done, text = pcall(host.load, file)
    expect(done, false)
    return text
end
local function expectComplaint(file, wanted)
    local text = complaint(file)
    expect(text:find(wanted, 1, true) ~= nil, true, text)
    expect(text:find("\n"), nil, "one line")
end

expectComplaint("none.so", 'host.load: no file "' .. script .. '/none.so", nor "' .. here .. '/none.so"')
expectComplaint("/none/none.so", 'host.load: no file "/none/none.so"')
expectComplaint("", "host.load: no file")
expectComplaint(".", "host.load: no file")
expectComplaint("load_errors.lua\0", "load_errors.lua\\x00")
expectComplaint("load_errors.lua", script .. "/load_errors.lua: ")
expectComplaint(os.getenv("PLATFORM"), "libqor_platform.so has no QorClientStart")
expect(icib.register{service=1}, 0)
