/*
 * The functions of the Lua interface, by file. Each lua_*.cpp gives its rows; allFunctions() strings
 * them together in the order of the manual. To add a topic: write its file, declare its rows here,
 * add them in lua_api.cpp and list the file in CMakeLists.txt.
 */
#ifndef HOST_LUA_API_H
#define HOST_LUA_API_H

#include <iosfwd>
#include <string>
#include <vector>

#include "script/lua_args.h"

namespace host {

std::vector<Function> tokenFunctions();  // icib, ipat, ecib, notify, on
std::vector<Function> engineFunctions(); // engine, alarm
std::vector<Function> vlanFunctions();   // vlan, engine
std::vector<Function> hostFunctions();   // host, expect, print
std::vector<Function> clientFunctions(); // host.load
std::vector<Function> showFunctions();   // show

const std::vector<Function> &allFunctions();

/* For a reader at the prompt: one function ("icib.add"), those of a topic ("icib"), or all (""). */
void writeHelp(std::ostream &out, const std::string &name);

/* The reference part of docs/host.md, from the rows. */
void writeManual(std::ostream &out);

} // namespace host

#endif
