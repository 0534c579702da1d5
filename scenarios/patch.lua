-- The hot-patch synchronisation hook takes what is for this library and leaves the rest.

for _, operation in ipairs{"activate", "deactivate", "activate"} do
    local code, handled = host.patch(operation)
    expect(code, 0)
    expect(handled, true)
end
local code, handled = host.patch("activate", "libqor_other.so")
expect(code, 0)
expect(handled, false)
