/*
 * Every schedule with at most two preemptions (one under ASan) of small programs of two and
 * three clients. What goes wrong is printed with its steps, and its schedule, which plays it again:
 *     L2RSM_PROGRAM="i+1 / i!3 | i+2" L2RSM_SCHEDULE=12.1,30.2 schedules_test
 * Without L2RSM_SCHEDULE all of the program are tried; L2RSM_PREEMPTIONS says how many each may have.
 *
 * A program is "what was before / first client | second client | third client", words with blanks
 * between them. Entries: i and j are ICIB (one outer VLAN), p and q IPAT (one port). T is a
 * forwarding type, 1 to 3, and the service; the stamp is 10 T.
 *     i+T i~T i-T   asks for the token to add, to update, to delete; "(words)" behind it is what the
 *                   callback does when it is told the first time
 *     i=T           asks to add and, if it may, frees with op type 3
 *     i!O           frees with op type O
 *     i?            queries (ICIB)
 *     w             one tick of the walk
 *     x             goes over ICIB's table of waiting requests, as another component may
 *     rT            registers another callback of the service for both tables
 *     F E           the ICIB_PP engine table is full, has room
 *     c k m         exceed check, probe; 119 probes have passed, the next one sends again
 *
 * What must be true of every schedule: no type gets an entry while another holds it; whoever was
 * recorded as waiting is told, once by ICIB, and nobody else is; no deadlock, nothing lost, nothing
 * used that was given back; and results, records, lists and answers are those of some order of the
 * calls' steps. A call has two steps where its rules say so: a release changes the record, then looks
 * for waiting requests; a request that finds nobody stores its record, then waits (a release in between
 * does not tell it); a query reads the record, then the list.
 */
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <set>
#include <sstream>

#include "alarms/exceed_check.h"
#include "scheduler.h"
#include "support/services.h"
#include "support/sides.h"

constexpr unsigned kOrderSwitches = 4; // between steps; two preemptions never came out as more

namespace {

using scheduler::Fail;
using scheduler::Now;

constexpr int kEntries = 4;

const Side &SideOf(int entry)
{
    return *kSides[entry / 2];
}

Key KeyOf(int entry)
{
    return MakeKey(100, 5 + entry % 2);
}

// --- a program and its run ---

constexpr u32 kNone = 99; // no result

struct Word {
    std::string text;
    char what; // '+', '~', '-', '=', '!', '?', or a letter
    int entry; // in "ijpq", or -1
    u32 type;
    std::vector<Word> told;
    struct {
        u32 result = kNone;
        unsigned toldTimes = 0;
        bool recorded = false;       // as waiting
        unsigned begin = 0, end = 0; // of a request or a query
        std::vector<L2ResQueryEntry> answer = {};
    } now = {}; // in this run

    u32 Op() const
    {
        return what == '~' ? L2RES_OP_UPDATE : what == '-' ? L2RES_OP_DELETE : L2RES_OP_ADD;
    }
};
using Script = std::vector<Word>;

struct Span { // a grant, or a release (type 0), from its call to its return
    int entry;
    u32 type;
    unsigned begin, end;
};

struct Run {
    std::vector<Script> scripts; // what was before, then the clients
    std::vector<Word *> words;   // all of them; a request's data is its place here
    std::vector<Span> spans;
    unsigned clock;
    bool draining, full, raisedAtService;
    unsigned idleNotices;
} g_run;

struct Client {
    bool waits, granted; // by the last closing line of a request
    unsigned usageChecks;
    u32 alarmKind;
} g_clients[scheduler::kClients + 1];

Script Read(const char **at)
{
    constexpr char kNames[] = "ijpq";
    Script script;
    while (**at != '\0' && strchr("|/)", **at) == nullptr) {
        const char *start = *at;
        const char *entry = strchr(kNames, *start);
        const char what = *(*at += entry != nullptr);
        ++*at;
        Word word = {"", what, entry != nullptr ? static_cast<int>(entry - kNames) : -1, 0, {}};
        if (isdigit(**at) != 0) {
            word.type = static_cast<u32>(*(*at)++ - '0');
        }
        word.text.assign(start, *at);
        if (**at == '(') {
            word.told = Read(&++*at);
            ++*at;
        }
        if (what != ' ') {
            script.push_back(word);
        }
    }
    return script;
}

void ListWords(Script &script)
{
    for (Word &word : script) {
        scheduler::Name(&word, word.text);
        g_run.words.push_back(&word);
        ListWords(word.told);
    }
}

void Do(Script &script);

u32 Told(u32 event, void *record, void *data)
{
    if (event == L2RES_EVENT_TABLE_IDLE) {
        ++g_run.idleNotices;
        return 0;
    }
    u32 place;
    memcpy(&place, data, sizeof place);
    if (place >= g_run.words.size()) {
        Fail("a service is told with data that nobody sent");
        return 1;
    }
    Word &word = *g_run.words[place];
    const Key key = KeyOf(word.entry);
    if (memcmp(record, SideOf(word.entry).Of(key),
               word.entry < 2 ? sizeof key.icib : sizeof key.ipat)) {
        Fail("a service is told of another entry");
    }
    scheduler::At("is told of", &word, true);
    if (word.now.toldTimes++ == 0 && !g_run.draining) {
        Do(word.told);
    }
    return 0;
}

// Another type's grant needs a release that overlaps or follows it.
void Granted(const Span &grant)
{
    for (const Span &other : g_run.spans) {
        if (other.entry == grant.entry && other.type != 0 && other.type != grant.type &&
            std::none_of(g_run.spans.begin(), g_run.spans.end(), [&](const Span &release) {
                return release.entry == grant.entry && release.type == 0 &&
                       release.end > std::min(other.begin, grant.begin);
            })) {
            Fail("two types hold one entry");
        }
    }
    g_run.spans.push_back(grant);
}

void Ask(Word &word)
{
    const Key key = KeyOf(word.entry); // the client's own: gone when the call is over
    const auto place = static_cast<u32>(std::find(g_run.words.begin(), g_run.words.end(), &word) -
                                        g_run.words.begin());
    L2ResTokenReq request = {10 * word.type, static_cast<u16>(word.type),
                             SideOf(word.entry).Of(key), sizeof place, &place};
    g_clients[Now()] = {};
    word.now.begin = ++g_run.clock;
    word.now.result = SideOf(word.entry).getToken(word.type, word.Op(), &request);
    word.now.end = ++g_run.clock;
    word.now.recorded = g_clients[Now()].waits;
    if (g_clients[Now()].granted) {
        Granted({word.entry, word.type, word.now.begin, word.now.end});
    }
}

u32 Free(int entry, u32 op)
{
    const size_t place = g_run.spans.size();
    g_run.spans.push_back({entry, 0, ++g_run.clock, ~0u});
    const u32 result = SideOf(entry).Free(op, KeyOf(entry));
    g_run.spans[place].end = ++g_run.clock;
    return result;
}

void DoWord(Word &word)
{
    switch (word.what) {
    case '=':
        Ask(word);
        if (word.now.result == L2RES_TOKEN_PROCEED) {
            scheduler::At("frees what it got by", &word, true);
            (void)Free(word.entry, L2RES_OP_DELETE);
        }
        return;
    case '!':
        word.now.result = Free(word.entry, word.type);
        return;
    case '?': {
        const Key key = KeyOf(word.entry);
        u16 count = 0;
        word.now.answer.resize(L2RES_QUERY_MAX);
        word.now.begin = ++g_run.clock;
        word.now.result = QorL2ResIcibGet(&key.icib, word.now.answer.data(), &count);
        word.now.end = ++g_run.clock;
        word.now.answer.resize(count);
        return;
    }
    case 'w':
        return QorL2ResIcibReOpHashWalk();
    case 'x':
        ZIR_MutexLock(kIcib.waitMutex);
        for (auto *element = HASH_GetFirstNode(*kIcib.waitHash); element != nullptr;
             element = HASH_GetNextNode(*kIcib.waitHash)) {
        }
        return ZIR_MutexUnlock(kIcib.waitMutex);
    case 'r':
        for (const Side *side : kSides) {
            (void)QOR_L2RES_Register(
                side->tableId, word.type,
                [](u32 event, void *record, void *data) { return Told(event, record, data); });
        }
        return;
    case 'F':
    case 'E':
        g_run.full = word.what == 'F';
        return;
    case 'c':
        g_clients[Now()] = {};
        word.now.result = QorL2ResExceedCheckAndAlarm(L2RES_ALARM_ICIB_PP);
        return;
    case 'k':
        g_clients[Now()] = {};
        return QorL2ResProbeProc(L2RES_ALARM_ICIB_PP);
    case 'm':
        g_qorl2ResAlarmTbl[L2RES_ALARM_ICIB_PP].resendCount = 119;
        return;
    default:
        return Ask(word);
    }
}

void Do(Script &script)
{
    for (Word &word : script) {
        scheduler::At("calls", &word, true);
        DoWord(word);
    }
}

void Reset()
{
    for (Word *word : g_run.words) {
        word->now = {};
    }
    g_run = {std::move(g_run.scripts), std::move(g_run.words), {}, 0, false, false, false, 0};
    g_qorl2ResAlarmTbl[L2RES_ALARM_ICIB_PP].raised = 0;
    g_qorl2ResAlarmTbl[L2RES_ALARM_ICIB_PP].resendCount = 0;
    for (u32 service = 0; service < L2RES_SERVICE_COUNT; ++service) {
        (void)QOR_L2RES_Register(L2RES_TABLE_ICIB, service, Told);
        (void)QOR_L2RES_Register(L2RES_TABLE_IPAT, service, Told);
    }
    Do(g_run.scripts[0]);
}

// --- what came of it ---

// Brings the alarm to where it ends: a clear that met a raise on its way is made good by the next
// re-send.
void ProbeOnce()
{
    g_clients[Now()] = {};
    g_qorl2ResAlarmTbl[L2RES_ALARM_ICIB_PP].resendCount = 119;
    QorL2ResProbeProc(L2RES_ALARM_ICIB_PP);
}

// Types (bits) of requests that were under way during a query: it may see them waiting or not yet, or
// still before they are taken back and judged again.
unsigned UnderWay()
{
    unsigned types = 0;
    for (const Word *query : g_run.words) {
        for (const Word *word : g_run.words) {
            const bool meet = word->now.begin < query->now.end && query->now.begin < word->now.end;
            types |= query->what == '?' && meet ? 1u << word->type : 0;
        }
    }
    return types;
}

// `hidden`: types whose requests an answer may or may not have.
std::string Outcome(unsigned hidden)
{
    std::ostringstream text;
    for (const Word *word : g_run.words) {
        text << word->text;
        if (word->now.result != kNone) {
            text << " = " << word->now.result;
        }
        for (const L2ResQueryEntry &line : word->now.answer) {
            if (line.iswaiting == 0 || (hidden >> line.servicename & 1) == 0) {
                text << (line.iswaiting != 0 ? " waiting " : " holder ") << line.optype << " of "
                     << line.servicename;
            }
        }
        // IPAT tells who waits again and again, as often as somebody frees.
        text << (word->now.toldTimes != 0 && SideOf(word->entry).icib ? " told; " : "; ");
    }
    for (int entry = 0; entry < kEntries; ++entry) {
        if (const L2ResOpRecord *record = SideOf(entry).Record(KeyOf(entry))) {
            text << "record " << entry << ": " << record->Op << " of " << record->SrvType
                 << (record->Used != 0 ? " used; " : "; ");
        }
        if (const L2ResWaitList *list = SideOf(entry).Waiting(KeyOf(entry))) {
            for (u16 i = 0; i < list->reOpNum && i < L2RES_WAITERS_MAX; ++i) {
                text << "waits for " << entry << ": " << list->entry[i].op.Op << " of "
                     << list->entry[i].srvType << "; ";
            }
        }
    }
    text << "alarm " << g_qorl2ResAlarmTbl[L2RES_ALARM_ICIB_PP].raised << ", at the service "
         << g_run.raisedAtService << (g_run.idleNotices != 0 ? ", told of room" : "");
    return text.str();
}

// Releases all that is left; then everybody who waited has been told, and nothing is left.
void Drain()
{
    g_run.draining = true;
    for (int entry = 0; entry < kEntries; ++entry) {
        const Side &side = SideOf(entry);
        for (unsigned i = 0;
             i < L2RES_WAITERS_MAX && (side.Record(KeyOf(entry)) != nullptr ||
                                       (!side.icib && side.Waiting(KeyOf(entry)) != nullptr));
             ++i) {
            (void)Free(entry, L2RES_OP_DELETE);
        }
    }
    for (int tick = 0; tick < 3; ++tick) {
        QorL2ResIcibReOpHashWalk();
    }
    for (const Word *word : g_run.words) {
        const auto frees =
            std::count_if(g_run.spans.begin(), g_run.spans.end(), [word](const Span &span) {
                return span.type == 0 && span.entry == word->entry;
            });
        const auto most = !word->now.recorded ? 0 : SideOf(word->entry).icib ? 1 : frees;
        if (word->now.toldTimes < word->now.recorded || word->now.toldTimes > most) {
            Fail(word->text + " is told " + std::to_string(word->now.toldTimes) + " times");
        }
    }
}

// --- the module's surroundings ---

u32 CountHook(u32 *total, u32 *used, u32 *idle)
{
    scheduler::At("the count hook runs");
    if (++g_clients[Now()].usageChecks > 1) {
        Fail("a request checks the usage twice");
    }
    *total = 8;
    *used = g_run.full ? 8 : 3;
    *idle = 8 - *used;
    scheduler::At("the count hook returns");
    return 0;
}

bool Has(const char *text, const char *part)
{
    return strstr(text, part) != nullptr;
}

void Print(u32, u32, const char *text)
{
    scheduler::At("the log is written");
    if (Has(text, ",ReOp:") && Has(text, ",ret")) { // the closing line of a request
        g_clients[Now()].waits = Has(text, "IsReOp:1");
        g_clients[Now()].granted = !Has(text, "Op:0,IsOp:");
    }
    if (Has(text, "OpHashUpdate,") || Has(text, "OpDel") || Has(text, "Query ")) {
        scheduler::At("is between two steps", nullptr, true);
    }
}

void StartModule()
{
    services::Fakes &fakes = services::Get();
    ASSERT_EQ(services::StartModule(), 0u);
    fakes.dbgLog.print = Print;
    fakes.blackBox.print = [](u32, u32, const char *) {};
    fakes.time.getSysTime = [](L2ResAlarmTime *) -> u32 { return 0; };
    fakes.log.objCreate = [](u32, u32, L2ResAlarmHandle *) -> u32 { return 0; };
    fakes.log.addPara = [](L2ResAlarmHandle, u32, u32, const void *) -> u32 { return 0; };
    fakes.log.setAlarmComAttr = [](L2ResAlarmHandle, L2ResAlarmAttr *attr) -> u32 {
        g_clients[Now()].alarmKind = attr->alarmKind;
        return 0;
    };
    fakes.log.send = [](L2ResAlarmHandle) -> u32 {
        scheduler::At("an alarm is sent");
        g_run.raisedAtService = g_clients[Now()].alarmKind == L2RES_ALARM_RAISE;
        scheduler::At("an alarm has been sent");
        return 0;
    };
    (void)QorL2ResHookRegister(L2RES_HOOK_ICIB_PP, reinterpret_cast<L2ResHook>(CountHook));
    for (const Side *side : kSides) {
        scheduler::Name(*side->opHash, side->opMutex, std::string(side->name) + "'s records");
        scheduler::Name(*side->waitHash, side->waitMutex, std::string(side->name) + "'s waiters");
    }
}

// --- the programs ---

// E the first entry of a table, F another one of its bucket.
std::vector<std::string> Generated()
{
    constexpr const char *kBefore[] = {"", "E+1", "E+1 E-2"};
    constexpr const char *kScripts[] = {"E+2", "E=3",      "E-3",     "E~2", "E!3",
                                        "E!1", "E+3(E=3)", "F=1 E=1", "w",   "E?"};
    std::vector<std::string> programs;
    for (const char *entries : {"ij", "pq"}) {
        for (const std::string before : kBefore) {
            for (const auto *one = std::begin(kScripts); one != std::end(kScripts); ++one) {
                for (const auto *other = one; other != std::end(kScripts); ++other) {
                    std::string text = before + " / " + *one + " | " + *other;
                    std::replace(text.begin(), text.end(), 'E', entries[0]);
                    std::replace(text.begin(), text.end(), 'F', entries[1]);
                    if (entries[0] == 'i' || text.find_first_of("w?") == std::string::npos) {
                        programs.push_back(text);
                    }
                }
            }
        }
    }
    return programs;
}

const char *const kPrograms[] = {
    // Three clients.
    "i+1 / i!3 | i=2 | i=3",
    "i+1 / i!3 | i+2 | i-3",
    "i+1 / i!1 | i~2 | i!3",
    "i+1 i-2 / i!3 | i=3 | w w w",
    "i+1 i+2 / i!1 | i!1 | i=3",
    "i+1 i+2 / i!3 | i? | i=3",
    "i+1 j+2 i+3 / i!3 | j!3 | i=2",
    "i+1 p+1 / i!3 | p!3 i=2 | p=2",
    " / i=1 | i-2 | i~3",
    "p+1 / p!3 | p=2 | p=3",
    "p+1 p+2 / p!3 | p!3 | p=3",
    " / p=1 | p-2 | p~3",
    // A tick at which somebody is due.
    "i+1 i+2 w w / w | i!3 | i+3",
    "i+1 i+2 w w / w | i=3 | i?",
    "i+1 j+1 i+2 j+2 w w / w | j!3 | i=3",
    "i+1 i+2 w w / w | i!3 j-2",
    "i+1 j+1 i+2(j!3) j+2 w w / w | j=3",
    "i+1 i+2(p=2) w w / w | p=1 | i!3",
    "i+1 i+2(i~2) w w / w w | i!3",
    "i+1 j+1 i+2 j+2 w w / w | x",
    "i+1 j+1 i+2(x) j+2 w w / w | j=3",
    // Callbacks that ask again, free, wait again.
    "i+1 i+2(i+2) / i!3 | i=3",
    "i+1 i+2(i=2) i+3(i=3) / i!3 | i?",
    "i+1 i+2(i!3) / i!1 | i+3",
    "i+1 i+2(i=2(i=2)) i~3(i~3) / i!1 | i!3",
    "i+1 i+2(p=2) p+1 p+3(i=3) / i!3 | p!3",
    "p+1 p+2(p=2) p+3(p=3) / p!3 | p=2",
    "p+1 p+2(p!3) / p!3 | p+3",
    "p+1 p+2 p+3 / p!3 | p!3",
    // A record that is freed and made again alike.
    "i+1 / i!3 i+1 | i+2",
    "i-1 / i!3 i-1 | i+2 | i?",
    "p+1 / p!3 p+1 | p-2 p~3",
    // A registration beside a notification.
    "i+1 i+2 / i!3 | r2",
    "p+1 p+2 p-2 / p!3 p!3 | r2",
    // Alarms: the table runs full or empties while somebody looks.
    "F c E / k | F c",
    "F c m E / k | F c",
    "F c m E / k k | F c",
    "F c E / k | F i+1 | c",
    "F c E / k | F c | E",
    "F c m / k | E c",
    "E / F c | E | k",
};

std::string g_program;
unsigned long g_orders = 0, g_schedules = 0;

void Read(const std::string &text)
{
    g_program = text;
    g_run = {};
    for (const char *at = text.c_str(); at == text.c_str() || *at++ != '\0';) {
        g_run.scripts.push_back(Read(&at));
    }
    for (Script &script : g_run.scripts) {
        ListWords(script);
    }
}

// Tries a program until it goes wrong.
void Try(const std::string &text, unsigned preemptions, const std::string &replay)
{
    Read(text);
    std::set<std::string> outcomes;
    scheduler::Search search = {
        int(g_run.scripts.size()) - 1, true, kOrderSwitches, "", Reset, {}, {}};
    search.client = [](int client) { Do(g_run.scripts[size_t(client) + 1]); };
    search.check = [&outcomes, asks = text.find('?') != std::string::npos] {
        ProbeOnce();
        for (unsigned hidden = 0; hidden < (asks ? 16 : 1); ++hidden) {
            outcomes.insert(Outcome(hidden));
        }
        Drain();
    };
    g_orders += scheduler::Explore(search);
    if (!scheduler::Failure().empty()) {
        return;
    }
    search.stepsOnly = false;
    search.preemptions = preemptions;
    search.replay = replay;
    search.check = [&outcomes] {
        ProbeOnce();
        const std::string outcome = Outcome(UnderWay());
        if (outcomes.count(outcome) == 0) {
            std::string reason = "no order of the steps gives\n    " + outcome + "\n  but";
            for (const std::string &one : outcomes) {
                reason += "\n    " + one;
            }
            Fail(reason);
        }
        Drain();
    };
    g_schedules += scheduler::Explore(search);
}

std::string Report()
{
    return '"' + g_program + "\" goes wrong: " + scheduler::Failure() + '\n' + scheduler::Steps() +
           "L2RSM_PROGRAM=\"" + g_program + "\" L2RSM_SCHEDULE=" + scheduler::Schedule();
}

// The process is lost, its schedule is worth the attempt.
void Died(int signal)
{
    alarm(10);
    Fail(strsignal(signal));
    fprintf(stderr, "%s\n", Report().c_str());
    _exit(1);
}

std::string Setting(const char *name, const std::string &otherwise)
{
    const char *value = getenv(name);
    return value != nullptr ? value : otherwise;
}

TEST(Schedules, NothingGoesWrong)
{
    StartModule();
    for (int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE}) {
        (void)std::signal(signal, Died);
    }
    std::vector<std::string> programs = Generated();
    programs.insert(programs.end(), std::begin(kPrograms), std::end(kPrograms));
    const std::string only = Setting("L2RSM_PROGRAM", "");
    if (!only.empty()) {
        programs = {only};
    }
    const auto preemptions = unsigned(std::stoul(Setting("L2RSM_PREEMPTIONS", PREEMPTIONS)));
    const std::string replay = Setting("L2RSM_SCHEDULE", "");
    for (const std::string &text : programs) {
        Try(text, preemptions, replay);
        ASSERT_EQ(scheduler::Failure(), "") << Report();
    }
    printf("%zu programs, %lu schedules of up to %u preemptions, %lu orders of steps\n%s",
           programs.size(), g_schedules, preemptions, g_orders,
           replay.empty() ? "" : scheduler::Steps().c_str());
}

} // namespace
