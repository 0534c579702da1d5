/*
 * The prompt: the scenario's language, typed line by line.
 *
 * A line is a chunk or an expression, whose results are printed; one that is not complete goes on in
 * the next line. Beside the language there are `help`, `help NAME` and `exit`. What the worker does
 * meanwhile is printed and handled while the prompt waits; errors are printed and never end it.
 */
#ifndef HOST_PROMPT_H
#define HOST_PROMPT_H

#include <string>

namespace host {

struct Host;

class Prompt {
public:
    /*
     * There is one. Before the script that comes first, if there is one: from here on an interrupt
     * ends what runs in the interpreter, also in coroutines that are made from here on.
     */
    explicit Prompt(Host &host);

    /*
     * Until `exit` or the end of input. On a terminal lines are edited, completed and kept in a
     * history; else they are read as they come and no prompt is written.
     */
    void run();

    /* Prints what other threads wrote meanwhile and runs their handlers. For the editor's hook. */
    void attend();

private:
    bool readLine(const char *mark, std::string *line);
    bool command(const std::string &line);
    bool evaluate(const std::string &chunk); // false: the chunk is not complete
    void printResults(int first);
    void complain(const std::string &text);

    Host &host_;
    const bool terminal_;
    bool ended_ = false;
};

} // namespace host

#endif
