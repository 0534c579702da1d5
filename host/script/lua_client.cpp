/* host.load: a client component, a shared object, joins the scenario. */
#include <dlfcn.h>

#include <filesystem>

#include "l2rsm_client.h"
#include "script/host.h"
#include "script/lua_api.h"

namespace host {

/* Directory of the innermost running script; empty at a prompt. */
static std::filesystem::path scriptDirectory(lua_State *L)
{
    lua_Debug frame;
    for (int level = 0; lua_getstack(L, level, &frame) != 0; ++level) {
        lua_getinfo(L, "S", &frame);
        if (*frame.source == '@') {
            return std::filesystem::path(frame.source + 1).parent_path();
        }
    }
    return {};
}

static std::string findComponent(lua_State *L, const std::string &file)
{
    const std::filesystem::path current = std::filesystem::current_path();
    const std::string script = current / scriptDirectory(L) / file;
    const std::string here = current / file;
    std::error_code error;
    for (const std::string &candidate : {script, here}) {
        // With a zero byte the system would look at another name than the script gave.
        if (file.find('\0') == file.npos && std::filesystem::is_regular_file(candidate, error)) {
            return candidate;
        }
    }
    const std::string other = here == script ? "" : ", nor " + host::quoted(here);
    throw ScriptError("host.load: no file " + host::quoted(script) + other);
}

static int hostLoad(Call &call)
{
    const std::string path = findComponent(call.L, std::string(call.args.text("file")));
    // Never closed: the module keeps the component's callbacks.
    void *component = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (component == nullptr) {
        throw ScriptError(std::string("host.load: ") + dlerror());
    }
    const auto start = reinterpret_cast<L2RsmClientStart>(dlsym(component, L2RSM_CLIENT_START));
    if (start == nullptr) {
        throw ScriptError("host.load: " + path + " has no " L2RSM_CLIENT_START);
    }
    Journal &journal = call.host.journal;
    const std::string name = std::filesystem::path(path).filename();
    const u64 number = journal.write(Kind::call, "host.load", {{"file", std::string_view(name)}});
    const u32 result = start(&call.host.module.table());
    journal.writeResult(number, "host.load", result, result == QOR_OK ? "started" : "failed");
    return call.push(result);
}

std::vector<Function> clientFunctions()
{
    return {
        {"host",
         "load",
         Style::positional,
         {param::text("file", "a shared object; a relative path is looked for beside the script, "
                              "then from the current directory")},
         "Loads a client component and calls its QorClientStart with the module's table; what it "
         "calls and is told from then on is printed like a script's own.",
         "code: what QorClientStart returned",
         hostLoad},
    };
}

} // namespace host
