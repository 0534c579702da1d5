/*
 * How the show functions answer: rows once as JSON objects, one a line, and as tables for a reader;
 * the script gets the same rows as Lua tables.
 */
#ifndef HOST_SHOW_OUTPUT_H
#define HOST_SHOW_OUTPUT_H

#include <string>
#include <vector>

#include "inspect/table_text.h"
#include "script/lua_args.h"

namespace host {

using namespace inspect;

struct Shown {
    const char *name;           // "entries"
    std::vector<Object> rows{}; // what JSON and the script get
    std::string text{};         // what a reader gets

    /* Adds rows that are shown alike. Nothing is written for none. */
    void section(const std::vector<Column> &columns, const std::vector<Object> &more);
};

/* Prints as the script or the command line wants it and pushes the rows. */
int answer(Call &call, const Shown &shown);

} // namespace host

#endif
