/*
 * What the module is made to do while something fails: every operation at least once, in pieces
 * that can be played again and again, and foreign code (services, hooks, callbacks) that can fail.
 *
 * A piece writes down what it saw; played from the same state with nothing failing, it always sees
 * the same. Its release gives everything back, whatever a failure left behind.
 */
#ifndef TESTS_FAULTS_WORKLOAD_H
#define TESTS_FAULTS_WORKLOAD_H

#include <string>
#include <vector>

namespace workload {

struct Piece {
    const char *name;
    void (*play)();
    void (*release)();
};

extern const Piece kPieces[5];

/* Registers the hooks and callbacks, and takes the timers out of the platform's hands. */
void Prepare();

/* What was seen since the last call. */
std::vector<std::string> TakeStory();

/* Lets the nth piece of foreign code from now fail; 0: none. Has it? */
void FailForeign(unsigned nth);
bool ForeignFailed();

/* Alarm objects that were created and neither sent nor freed. */
int OpenAlarmObjects();

/* Called by every resource count hook; for handshakes with the worker. */
extern void (*g_onCount)();

} // namespace workload

#endif
