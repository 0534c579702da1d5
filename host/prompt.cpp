#include "prompt.h"

#include <fcntl.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>

#include "complete.h"
#include "script/host.h"
#include "script/lua_api.h"

namespace host {

static Prompt *s_prompt; // the editor's hooks carry no context
static Host *s_host;
static std::atomic<int> s_interrupts; // since a line or a chunk began
static bool s_dropped;                // Ctrl-C gave up the chunk being typed

/* ---- history ---- */

/* In the state directory, or in the home directory where there is none; "" for nowhere. */
static std::string historyFile()
{
    const char *state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && *state == '/') {
        mkdir(state, 0700); // most likely there already
        return std::string(state) + "/l2rsm-host_history";
    }
    const char *home = std::getenv("HOME");
    return home != nullptr ? std::string(home) + "/.l2rsm-host_history" : "";
}

enum { HISTORY_LINES = 1000 };

/* A session without a history is still a session: failures are not worth a word. */
static void loadHistory()
{
    const std::string file = historyFile();
    using_history();
    read_history(file.c_str());
    if (history_length > 2 * HISTORY_LINES) {
        history_truncate_file(file.c_str(), HISTORY_LINES);
    }
    stifle_history(HISTORY_LINES);
}

/* At once, and behind what other sessions wrote: a session may end by a signal. */
static void remember(const std::string &line)
{
    const HIST_ENTRY *last =
        history_length > 0 ? history_get(history_base + history_length - 1) : nullptr;
    if (line.empty() || (last != nullptr && line == last->line)) {
        return;
    }
    add_history(line.c_str());
    const int file =
        open(historyFile().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file >= 0) {
        const std::string text = line + "\n";
        (void)!write(file, text.data(), text.size());
        close(file);
    }
}

/* ---- the editor's hooks ---- */

static char **completeWord(const char *, int start, int)
{
    rl_attempted_completion_over = 1; // never file names
    rl_completion_append_character = '\0';
    rl_completion_suppress_quote = 1;
    static std::vector<std::string> found;
    const std::string line(rl_line_buffer, static_cast<std::size_t>(rl_point));
    found = completions(line, static_cast<std::size_t>(start),
                        std::string_view(line).substr(static_cast<std::size_t>(start)));
    const auto next = [](const char *word, int state) -> char * {
        (void)word;
        const auto index = static_cast<std::size_t>(state);
        static std::size_t position;
        position = index == 0 ? 0 : position + 1;
        return position < found.size() ? strdup(found[position].c_str()) : nullptr;
    };
    return rl_completion_matches(rl_line_buffer + start, next);
}

/* ---- interrupts ---- */

/* The first asks what runs to stop. Code that is not the interpreter's may not hear it. */
static void onInterrupt(int)
{
    static const char notice[] = "\nnot stopped yet; once more ends the host\n";
    s_host->scenario.interrupt(true);
    const int count = ++s_interrupts;
    if (count == 2) {
        (void)!write(STDERR_FILENO, notice, sizeof notice - 1);
    } else if (count > 2) {
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
    }
}

/* What was interrupted is over: that is no reason to stop what comes next. */
static void forgetInterrupt()
{
    s_interrupts = 0;
    s_host->scenario.interrupt(false);
}

enum { CHECK_PERIOD = 1000 }; // instructions

static void checkInterrupt(lua_State *L, lua_Debug *)
{
    const bool interrupted = s_host->scenario.interrupted();
    // Then at every instruction, so that no loop around a pcall runs on.
    lua_sethook(L, checkInterrupt, LUA_MASKCOUNT, interrupted ? 1 : CHECK_PERIOD);
    if (interrupted) {
        luaL_error(L, "interrupted");
    }
}

static int waiting()
{
    if (s_interrupts != 0) {
        forgetInterrupt();
        s_dropped = true;
        rl_replace_line("", 0);
        rl_stuff_char('\n'); // ends the line before what is typed next
        return 0;
    }
    s_prompt->attend();
    return 0;
}

/* ---- reading ---- */

static void startEditor()
{
    rl_readline_name = "l2rsm-host";
    rl_outstream = s_host->json ? stderr : stdout;
    rl_attempted_completion_function = completeWord;
    rl_completer_word_break_characters = wordBreaks;
    rl_completer_quote_characters = nullptr;
    rl_event_hook = waiting;
    rl_signal_event_hook = waiting;
    rl_set_keyboard_input_timeout(50000); // µs between two looks at the worker's lines
    loadHistory();
}

bool Prompt::readLine(const char *mark, std::string *line)
{
    if (!terminal_) {
        return static_cast<bool>(std::getline(std::cin, *line));
    }
    // Held lines are printed above the line being edited, not through it.
    host_.printer.hold(true);
    char *typed = readline(mark);
    host_.printer.hold(false);
    if (typed == nullptr) {
        std::fputs("\n", rl_outstream);
        return false;
    }
    *line = typed;
    std::free(typed); // NOLINT(cppcoreguidelines-no-malloc): readline's
    return true;
}

/* Above the line that is being edited. */
static void showHeld(Printer &printer)
{
    if (printer.hasHeld()) {
        rl_clear_visible_line();
        std::fflush(rl_outstream);
        printer.printHeld();
        rl_on_new_line();
        rl_forced_update_display();
    }
}

void Prompt::attend()
{
    showHeld(host_.printer);
    rl_clear_signals(); // a handler can be interrupted, too
    try {
        host_.scenario.deliver();
    } catch (const std::exception &error) {
        complain(error.what());
        forgetInterrupt();
    }
    rl_set_signals();
    showHeld(host_.printer);
}

/* ---- commands ---- */

static std::string trimmed(const std::string &line)
{
    const std::size_t first = line.find_first_not_of(" \t");
    return first == line.npos ? "" : line.substr(first, line.find_last_not_of(" \t") - first + 1);
}

/* What is no part of the language. True when the line was one of these. */
bool Prompt::command(const std::string &line)
{
    if (line == "exit" || line == "quit" || line == "exit()") {
        ended_ = true;
        return true;
    }
    if (line == "help" || line.starts_with("help ")) {
        std::ostringstream text;
        writeHelp(text, trimmed(line.substr(4)));
        host_.printer.writeEvent(text.str());
        return true;
    }
    return line.empty();
}

/* ---- evaluating ---- */

void Prompt::complain(const std::string &text)
{
    host_.printer.writeEvent(text + "\n");
}

/* "= 4 wait". The rows of a show function have just been printed. */
void Prompt::printResults(int first)
{
    lua_State *L = host_.scenario.state();
    std::string line;
    for (int index = first; index <= lua_gettop(L); ++index) {
        const bool text = lua_type(L, index) == LUA_TSTRING;
        line += " " + (text ? std::string(textAt(L, index)) : showValue(L, index));
    }
    if (!line.empty()) {
        host_.printer.writeEvent("=" + line + "\n");
    }
}

static bool isIncomplete(lua_State *L)
{
    const std::string_view message = lua_tostring(L, -1);
    return message.ends_with("<eof>");
}

/* Leaves the chunk's function on the stack, an expression's with its results. */
static int compile(lua_State *L, const std::string &chunk)
{
    const std::string expression = "return " + chunk;
    const auto load = [&](const std::string &text) {
        return luaL_loadbufferx(L, text.data(), text.size(), "=prompt", "t");
    };
    int status = load(expression);
    if (status == LUA_ERRSYNTAX) {
        lua_pop(L, 1);
        status = load(chunk);
    }
    return status;
}

bool Prompt::evaluate(const std::string &chunk)
{
    lua_State *L = host_.scenario.state();
    const int bottom = lua_gettop(L);
    const int status = compile(L, chunk);
    if (status == LUA_ERRSYNTAX && isIncomplete(L)) {
        lua_settop(L, bottom);
        return false;
    }
    forgetInterrupt();
    const u64 written = host_.printer.written();
    if (status != LUA_OK || !protectedCall(L, 0, LUA_MULTRET)) {
        complain(popError(L));
    } else if (host_.printer.written() == written || lua_gettop(L) != bottom + 1 ||
               !lua_istable(L, -1)) {
        printResults(bottom + 1);
    }
    lua_settop(L, bottom);
    forgetInterrupt();
    try {
        host_.scenario.deliver();
    } catch (const std::exception &error) {
        complain(error.what());
    }
    return true;
}

/* ---- the session ---- */

Prompt::Prompt(Host &host) : host_(host), terminal_(isatty(STDIN_FILENO) != 0)
{
    s_prompt = this;
    s_host = &host_;
    lua_sethook(host_.scenario.state(), checkInterrupt, LUA_MASKCOUNT, CHECK_PERIOD);
}

void Prompt::run()
{
    if (terminal_) {
        startEditor();
        std::signal(SIGINT, onInterrupt);
        host_.printer.writeEvent("`help` lists the functions, `help icib.add` describes one, Tab "
                                 "completes, `exit` ends.\n");
    }
    std::string chunk, line;
    while (!ended_ && readLine(chunk.empty() ? "> " : ">> ", &line)) {
        if (std::exchange(s_dropped, false)) {
            chunk.clear();
            continue;
        }
        if (terminal_) {
            remember(line);
        }
        if (chunk.empty() && command(trimmed(line))) {
            continue;
        }
        chunk += (chunk.empty() ? "" : "\n") + line;
        if (evaluate(chunk)) {
            chunk.clear();
        }
    }
    if (!chunk.empty()) {
        complain("prompt: the last chunk is not complete");
    }
    if (terminal_) {
        std::signal(SIGINT, SIG_DFL);
    }
}

} // namespace host
