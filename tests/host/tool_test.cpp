/*
 * The host as a tool: the prompt through a pseudo-terminal, the reasons of refusals for every row
 * of the rules, what the show functions say in JSON, what a session leaves behind.
 */
#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "host_program.h"

namespace {

using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::Not;
using Json = nlohmann::json;

std::vector<std::string> linesOf(const std::string &text)
{
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

/* ---- the prompt ---- */

/* The program on a terminal of its own. */
class Terminal {
public:
    explicit Terminal(const std::string &arguments)
    {
        const std::string state = directory();
        const std::string command = std::string("exec '") + HOST + "' " + arguments;
        child_ = forkpty(&master_, nullptr, nullptr, nullptr);
        if (child_ == 0) {
            setenv("TERM", "dumb", 1);
            setenv("XDG_STATE_HOME", state.c_str(), 1);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Terminal()
    {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
        close(master_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void type(const std::string &keys)
    {
        ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    /* Reads until the text comes, which everything before it is then forgotten for. */
    void expect(const std::string &text)
    {
        ASSERT_FALSE(testing::Test::HasFatalFailure()) << "nothing is worth waiting for any more";
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (seen_.find(text) == seen_.npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << text << "\nin\n" << seen_;
            ASSERT_TRUE(readSome()) << text << "\nin\n" << seen_;
        }
        seen_.erase(0, seen_.find(text) + text.size());
    }

    /* Types the keys once a second until the text comes. */
    void insist(const std::string &keys, const std::string &text)
    {
        for (int tries = 0; tries < 60 && seen_.find(text) == seen_.npos; ++tries) {
            type(keys);
            while (seen_.find(text) == seen_.npos && readSome(1000)) {
            }
        }
        expect(text);
    }

    /* Types a line and waits for what comes of it. */
    void enter(const std::string &line, const std::vector<std::string> &texts)
    {
        type(line + "\r");
        for (const std::string &text : texts) {
            expect(text);
        }
    }

    /* As a shell has it: a signal's number and 128. */
    int exitStatus()
    {
        if (testing::Test::HasFatalFailure()) {
            kill(child_, SIGKILL);
        }
        while (readSome()) {
        }
        int status = 0;
        waitpid(child_, &status, 0);
        child_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    bool readSome(int ms = 60000)
    {
        pollfd ready = {master_, POLLIN, 0};
        char buffer[4096];
        if (poll(&ready, 1, ms) != 1) {
            return false;
        }
        const ssize_t got = read(master_, buffer, sizeof buffer);
        seen_.append(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
        return got > 0;
    }

    int master_ = -1;
    pid_t child_ = -1;
    std::string seen_;
};

class PromptTest : public Host {
protected:
    void SetUp() override
    {
        int master = -1, slave = -1;
        if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
            GTEST_SKIP() << "no pseudo-terminal: " << std::strerror(errno);
        }
        close(slave);
        close(master);
    }
};

TEST_F(PromptTest, FromStartToExit)
{
    Terminal terminal("--speed 10");
    terminal.expect("> ");
    terminal.type("icib.a\t"); // a function, then a field
    terminal.expect("icib.add{");
    terminal.type("ser\t1, fwd=10, stamp=100, port=3}\r");
    terminal.expect("service=1");
    terminal.expect("= 0 proceed");
    terminal.type("show.entries{table=\"ip\t}\r"); // a value
    terminal.expect("no entries");
    terminal.enter("icib.add{service=3, fwd=30, stamp=50, port=3}",
                   {"because: add by type 30, stamp 50, is not newer than the add held by type 10, "
                    "stamp 100",
                    "= 1 refused"});
    // No error ends it.
    terminal.enter("icib.add{service=1}", {"field \"fwd\" is missing", "> "});
    terminal.enter("nosuch.thing()", {"attempt to index a nil value", "> "});
    terminal.enter("= 1", {"unexpected symbol", "> "});
    terminal.enter("expect(1, 2)", {"expected 2, got 1", "> "});
    terminal.enter("for i = 1, 2 do", {">> "});
    terminal.enter("print('got ' .. i * 21) end", {"got 42"});
    terminal.enter("1 + 1, {a='x'}", {"= 2 {a=\"x\"}"});
    // A word is completed where the cursor is: type(icib.del), one to the left.
    terminal.enter("type(icib.del)\x02\t}", {"icib.delete: field \"service\" is missing"});
    terminal.enter("help", {"vlan.assign{...}"});
    terminal.enter("help icib.free", {"Frees a token", "returns code"});
    terminal.enter("help nosuch", {"no function or topic \"nosuch\""});
    terminal.enter("host.stress{clients=2, operations=200}", {"stress:   0% (0 of 200)", "{"});
    // The worker's notification is handled while nobody types.
    terminal.enter("icib.register{service=2} on.notify(2, function(e) print('told ' .. e) end)",
                   {"-> 0"});
    terminal.enter("icib.add{service=2, fwd=20, stamp=200, port=3}", {"= 4 wait"});
    terminal.expect("told free");
    terminal.enter("exit", {"left behind: icib port=3: token for add never freed (service 1, type "
                            "10, stamp 100)"});
    EXPECT_EQ(terminal.exitStatus(), 0);
}

TEST_F(PromptTest, InterruptsEndWhatRuns)
{
    Terminal terminal("--speed 10");
    terminal.expect("> ");
    // They allocate: a thread sanitizer lets signals in at library calls only.
    const std::string loop = "print('run' .. 'ning') while true do local t = {} end";
    terminal.enter("icib.register{service=2} on.notify(2, function() " + loop + " end)", {"-> 0"});
    for (const std::string &endless :
         {loop, "coroutine.wrap(function() " + loop + " end)()",
          "local f = function() " + loop + " end while true do pcall(f) end",
          std::string("print('run' .. 'ning') while true do pcall(host.wait, 1e6) end"),
          std::string("print('run' .. 'ning') host.stress{operations=4000000000, keys=2}"),
          std::string("icib.add{service=1, fwd=1, stamp=1} icib.add{service=2, fwd=2, stamp=2} "
                      "icib.free{service=1, op='add'}")}) {
        terminal.enter(endless, {"running"});
        terminal.type("\x03");
        terminal.expect("interrupted");
        terminal.expect("> ");
    }
    // In a handler that came while nobody typed, and what is typed next is a line of its own.
    terminal.enter("icib.add{service=1, fwd=1, stamp=9, port=5} "
                   "icib.add{service=2, fwd=2, stamp=10, port=5}",
                   {"-> 4 wait", "notify event=free"});
    terminal.insist("\x03", "interrupted");
    terminal.type("nosuch\x03");
    terminal.expect("^C");
    terminal.enter("print(6 * 7)", {"] 42"});
    // What no interpreter runs can only be ended with the host.
    terminal.enter("print('load' .. 'ing') host.load('" HANGING "')", {"] loading"});
    terminal.insist("\x03", "once more ends the host");
    terminal.type("\x03");
    EXPECT_EQ(terminal.exitStatus(), 128 + SIGINT);
}

TEST_F(PromptTest, SessionsShareTheHistory)
{
    Terminal first("--speed 10"), second("--speed 10");
    first.expect("> ");
    second.expect("> ");
    first.enter("'fir' .. 'st'", {"= first"});
    second.enter("'sec' .. 'ond'", {"= second"});
    second.enter("exit", {});
    EXPECT_EQ(second.exitStatus(), 0);
    first.enter("'thi' .. 'rd'", {"= third"});
    // The first one ends by a signal.
    const fs::path history = directory() / "l2rsm-host_history";
    EXPECT_EQ(readFile(history), "'fir' .. 'st'\n'sec' .. 'ond'\nexit\n'thi' .. 'rd'\n");
    Terminal next("--speed 10");
    next.expect("> ");
    next.enter("\x10\x10\x10", {"= second"});
}

TEST_F(PromptTest, JsonLeavesNothingElseOnStandardOutput)
{
    const fs::path out = directory() / "objects";
    Terminal terminal("--json --interactive --speed 100 >'" + out.string() + "'");
    terminal.expect("> ");
    terminal.enter("icib.register{service=2}", {"= 0"});
    terminal.enter("icib.add{service=1, fwd=10, stamp=100}", {"= 0 proceed"});
    terminal.enter("nosuch()", {"attempt to call a nil value"});
    terminal.enter("on.notify(2, function() print('to' .. 'ld') show.entries{} end)", {"> "});
    terminal.enter("icib.add{service=2, fwd=20, stamp=200}", {"= 4 wait", "] told"});
    terminal.enter("help on", {"on.notify("});
    terminal.enter("exit", {});
    EXPECT_EQ(terminal.exitStatus(), 0);
    EXPECT_EQ(linesOf(readFile(out)).size(), 1U);
    EXPECT_TRUE(Json::accept(readFile(out))) << readFile(out);
}

TEST_F(Host, StandardInputIsTheScriptOrThePrompt)
{
    std::ofstream(directory() / "in") << "print(6 *\n7)\nnosuch()\nprint('on')\n";
    const std::string in = " <" + (directory() / "in").string();
    const Outcome script = play(in);
    EXPECT_EQ(script.status, 1);
    EXPECT_THAT(script.out, HasSubstr("] 42\n"));
    EXPECT_THAT(script.err, HasSubstr("stdin:3: "));
    const Outcome prompt = play("--interactive" + in);
    EXPECT_EQ(prompt.status, 0);
    expectLines(prompt.out, {"\\] 42\n", "prompt:1: attempt to call a nil value", "\\] on\n"});
    EXPECT_EQ(prompt.err, "");
    std::ofstream(directory() / "in") << "'a\\0b'\n{['a\\0b']=1}\n";
    EXPECT_THAT(play("--interactive" + in).out,
                HasSubstr(std::string("= a\0b\n= {[\"a\\x00b\"]=1}", 22)));

    const fs::path pipe = directory() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::jthread writer([&] { std::ofstream(pipe) << "expect(1, 2)"; });
    EXPECT_EQ(play(pipe).status, 1) << "a pipe's first line is played";
}

/* ---- reasons ---- */

/* Holder: type 10, stamp 100, of an operation or none ("-"); "*" stands for any. */
struct Rule {
    std::string op, holder, type, stamps;
    int icib, ipat; // token results
    std::string reason;
};

const std::vector<Rule> rules = {
    {"add", "-", "*", "<=>", 0, 0, ""},
    {"update", "-", "*", "<=>", 3, 3, "finds no holder and waits"},
    {"delete", "-", "*", "<=>", 4, 4, "finds no holder and waits"},
    {"add", "*", "other", "<=", 1, 1, "is not newer than the HOLDER held by type 10, stamp 100"},
    {"add", "*", "other", ">", 4, 4, "waits for the HOLDER held by type 10, stamp 100"},
    {"add", "add", "own", "<=>", 4, 0, "repeats the type's own add, stamp 100"},
    {"add", "update", "own", "=>", 1, 1, "is not older than the type's own update, stamp 100"},
    {"add", "update", "own", "<", 0, 0, ""},
    {"add", "delete", "own", "<=", 1, 1, "is not newer than the type's own delete, stamp 100"},
    {"add", "delete", "own", ">", 0, 0, ""},
    {"delete", "*", "other", "<=>", 4, 4, "waits for the HOLDER held by type 10, stamp 100"},
    {"delete", "delete", "own", "<=>", 4, 0, "repeats the type's own delete, stamp 100"},
    {"delete", "*", "own", "<=", 1, 1, "is not newer than the type's own HOLDER, stamp 100"},
    {"delete", "*", "own", ">", 0, 0, ""},
    {"update", "*", "other", "<=>", 0, 0,
     "waits for the HOLDER held by type 10, stamp 100; an "
     "update that waits is told 0, too"},
    {"update", "add", "own", "<=", 1, 1, "is not newer than the type's own add, stamp 100"},
    {"update", "delete", "own", "<=", 1, 1, "is not newer than the type's own delete, stamp 100"},
    {"update", "delete", "own", ">", 0, 0, "waits for the type's own delete, stamp 100"},
    {"update", "*", "own", "<=>", 0, 0, ""},
};

const Rule &ruleFor(const std::string &op, const std::string &holder, const std::string &type,
                    char stamp)
{
    const auto is = [](const std::string &rule, const std::string &value) {
        return rule == value || (rule == "*" && value != "-");
    };
    for (const Rule &rule : rules) {
        if (rule.op == op && is(rule.holder, holder) && is(rule.type, type) &&
            rule.stamps.find(stamp) != rule.stamps.npos) {
            return rule;
        }
    }
    throw std::logic_error("no rule");
}

TEST_F(Host, EveryRowOfTheRulesIsExplained)
{
    // Every operation meets every holder, with each type and stamp, at an entry of its own.
    const Outcome run = playScript(R"(
        local port = 0
        for name, topic in pairs{icib=icib, ipat=ipat} do
          for op in pairs{add=1, update=1, delete=1} do
            for holder in pairs{['-']=1, add=1, update=1, delete=1} do
              for type, fwd in pairs{own=10, other=20} do
                for order, stamp in pairs{['<']=50, ['=']=100, ['>']=150} do
                  port = port + 1
                  if holder == 'update' or holder == 'delete' then
                    topic.add{service=1, fwd=10, stamp=99, port=port}
                  end
                  if holder ~= '-' then
                    topic[holder]{service=1, fwd=10, stamp=100, port=port}
                  end
                  print('case', name, op, holder, type, order)
                  topic[op]{service=2, fwd=fwd, stamp=stamp, port=port}
                end
              end
            end
          end
        end)",
                                   "");
    ASSERT_EQ(run.status, 0) << run.err;
    const std::regex cases("case\t(\\w+)\t(\\w+)\t(\\S+)\t(\\w+)\t(.)\n"
                           ".* -> (\\d).*\n(\\[.*because: (.*)\n)?");
    int count = 0;
    for (std::sregex_iterator it(run.out.begin(), run.out.end(), cases), end; it != end; ++it) {
        ++count;
        const std::smatch &found = *it;
        const bool icib = found[1] == "icib";
        // IPAT records an update as an add.
        const std::string op = found[2], type = found[4];
        const std::string holder = !icib && found[3] == "update" ? "add" : found[3].str();
        const Rule &rule = ruleFor(op, holder, type, found[5].str()[0]);
        EXPECT_EQ(found[6], std::to_string(icib ? rule.icib : rule.ipat)) << found[0];
        if (rule.reason.empty() || (!icib && rule.icib != rule.ipat)) {
            EXPECT_EQ(found[8], "") << found[0];
        } else {
            const std::string who = op + " by type " + (type == "own" ? "10" : "20") + ", stamp ";
            EXPECT_THAT(found[8].str(), testing::StartsWith(who));
            EXPECT_THAT(found[8].str(),
                        HasSubstr(std::regex_replace(rule.reason, std::regex("HOLDER"), holder)));
        }
    }
    EXPECT_EQ(count, 2 * 3 * 4 * 2 * 3);
}

TEST_F(Host, OtherReasons)
{
    const Outcome run = playScript(R"(
        icib.add{service=1, fwd=10, stamp=100}
        icib.free{service=1, op='add'}
        icib.add{service=9, fwd=10, stamp=100}
        for i = 1, 11 do icib.add{service=2, fwd=20, stamp=100 + i} end
        icib.register{service=9}
        notify.register{table=6, service=1}
        vlan.assign{direction='ingress', service=1, format=8}
        vlan.release{direction='ingress', service=13, format=1}
        vlan.assign{direction='ingress', service=9, format=2}
        vlan.assign{direction='ingress', service=10, format=3}
        vlan.release{direction='ingress', service=10, format=2})",
                                   "");
    EXPECT_EQ(run.status, 0) << run.err;
    expectLines(run.out, {"waits for the add last made by type 10, stamp 100 \\(released\\)\n",
                          "stamp 111, waits .*; ten requests wait already, this one will not be",
                          "-> 1 refused\n.*because: service 9 is not 0 to 8\n",
                          "because: table 6 is not 0 to 5\n", "because: format 8 is not 1 to 7\n",
                          "-> 1 failed\n.*because: service 13 is not 1 to 12\n",
                          // The engine was never asked.
                          "-> 1 failed\n.*because: no such edit is booked for service 10\n"});
}

TEST_F(Host, TheAgeOfAnOldRequestOutlivesManyNewOnes)
{
    const Outcome run = playScript(R"(
        ipat.add{service=1, fwd=10, stamp=1, port=1}
        ipat.add{service=2, fwd=20, stamp=2, port=1}
        host.wait_for(function() -- prints nothing
          for i = 1, 65540 do
            ipat.add{service=1, fwd=10, stamp=3 * i, port=2}
            ipat.add{service=2, fwd=20, stamp=3 * i + 1, port=2}
            ipat.free{service=1, op='add', port=2}
          end
          return true end, 1)
        expect(show.waiters()[1].age ~= nil, true))",
                                   "");
    EXPECT_EQ(run.status, 0) << run.err;
}

TEST_F(Host, ALoadedComponentIsToldWhyToo)
{
    const Outcome run = playScript("icib.register{service=2} local told\n"
                                   "on.notify(2, function(_, _, data) told = data end)\n"
                                   "host.load('" CLIENT "')\n"
                                   "expect(told, '\\xff\\xffx')",
                                   "");
    EXPECT_EQ(run.status, 0) << run.err;
    expectLines(run.out,
                {"icib.register service=9 -> 1 failed\n.*because: service 9 is not 0 to 8\n",
                 "because: table 6 is not 0 to 5\n", "because: there is no request\n",
                 "because: there is no place for the profile id\n",
                 "vlan.assign .*\n.*because: service 13 is not 1 to 12\n",
                 "vlan.release .*\n.*because: service 13 is not 1 to 12\n",
                 "vlan.assign .*service=5.* -> 0\n", "-> 6 failed\n"});
}

/* ---- JSON ---- */

TEST_F(Host, ShowSpeaksJsonWithDocumentedKeys)
{
    const Outcome run = playScript(R"(
        icib.register{service=2}
        icib.add{service=1, fwd=10, stamp='18446744073709551615', port=3, outvlan=7}
        icib.update{service=2, fwd=20, stamp=5, port=3, outvlan=7, data='a\0\xff'}
        engine.set{table='lem', used=4096} alarm.check{type='lem'} alarm.check{type='lem'}
        vlan.assign{direction='egress', service=3, format=2, outer_tag=2}
        ipat.add{service=4, fwd=1, stamp=1, unit=1, port=1}
        ipat.add{service=4, fwd=2, stamp=2, unit=1, port=1}
        expect({#show.entries{}, #show.waiters{}}, {2, 2})
        expect({#show.entries{table='ipat'}, #show.waiters{table='ipat'}}, {1, 1})
        expect({#show.alarms{table='lem'}, #show.log{last=3}}, {1, 3})
        show.entries{table='icib'} show.waiters{table='icib'} show.alarms{changes=true, table='lem'} show.vlan()
        show.engine() show.services() show.memory() show.log{level='error', last=2}
        show.memory{json=false})",
                                   "--json");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("scenario passed: 3 expectations\n"));
    const std::string manual = readFile(MANUAL);
    std::map<std::string, Json> last; // by function
    std::size_t objects = 0;
    for (const std::string &line : linesOf(run.out)) {
        if (line.front() != '{') {
            continue; // the one table
        }
        ++objects;
        const Json object = Json::parse(line);
        const std::string name = object.at("show");
        last[name] = object;
        const std::size_t section = manual.find("### `show." + name + "{");
        ASSERT_NE(section, manual.npos) << name;
        const std::string text =
            manual.substr(section, manual.find("### `", section + 5) - section);
        for (const auto &[key, value] : object.items()) {
            EXPECT_TRUE(std::regex_search(text, std::regex("\\b" + key + "\\b")))
                << name << ": " << key;
        }
    }
    EXPECT_GT(objects, 30U);
    const Json &entry = last.at("entries");
    EXPECT_EQ(entry.at("key").at("outvlan"), 7);
    EXPECT_EQ(entry.at("holder").at("stamp"), 18446744073709551615ULL);
    EXPECT_EQ(entry.at("holder").at("service"), 1);
    EXPECT_EQ(entry.at("holder").at("state"), "in progress");
    EXPECT_EQ(entry.at("waiters").size(), 1U);
    EXPECT_EQ(entry.at("waiters").at(0).at("op"), "update");
    EXPECT_TRUE(entry.at("waiters").at(0).at("age").is_number());
    EXPECT_THAT(last.at("waiters").at("ticks_left").get<int>(), testing::AllOf(Ge(1), Le(3)));
    const Json &alarm = last.at("alarms");
    EXPECT_EQ(alarm.at("state"), "on");
    EXPECT_EQ(alarm.at("raised"), 1);
    EXPECT_EQ(alarm.at("resent"), 1);
    EXPECT_EQ(alarm.at("used"), 4096);
    EXPECT_EQ(alarm.at("changes").at(1).at("change"), "re-sent");
    EXPECT_EQ(last.at("log").at("level"), "error");
    expectLines(run.out, {"\nHASH TABLE +NODES +BUFFERS +BYTES\nicib holders +1 +0 +\\d+\n"});
}

/* ---- left behind ---- */

TEST_F(Host, WhatIsLeftBehindIsListed)
{
    const Outcome left = playScript(R"(
        icib.add{service=1, fwd=10, stamp=100, port=3}
        icib.add{service=2, fwd=20, stamp=200, port=3, data='12345678'}
        icib.add{service=3, fwd=30, stamp=1, port=4}
        icib.free{service=3, op='add', port=4} -- a record, but no token
        ipat.add{service=4, fwd=40, stamp=1, unit=1, port=1}
        vlan.assign{direction='egress', service=3, format=2}
        expect(true, true))",
                                    "");
    EXPECT_EQ(left.status, 0);
    std::vector<std::string> lines;
    for (const std::string &line : linesOf(left.out)) {
        if (line.starts_with("left behind: ")) {
            lines.push_back(line.substr(13));
        }
    }
    EXPECT_THAT(
        lines,
        testing::ElementsAre(
            "icib port=3: token for add never freed (service 1, type 10, stamp 100)",
            "icib port=3: waiting add never notified (service 2, type 20, stamp 200)",
            "ipat unit=1 port=1: token for add never freed (service 4, type 40, stamp 1)",
            testing::MatchesRegex("vlan egress: profile [0-9]+ .service 3., format 2, command "
                                  "[0-9]+ never released"),
            // The data with its length.
            "memory: 10 bytes of partition 7 not given back (data of requests: 1 blocks)"));
    const Outcome nothing = playScript("vlan.assign{direction='egress', service=3, format=2}\n"
                                       "vlan.release{direction='egress', service=3, format=2}\n"
                                       "icib.add{service=1, fwd=10, stamp=100, port=3}\n"
                                       "icib.add{service=2, fwd=20, stamp=200, port=3, data='x'}\n"
                                       "icib.free{service=1, op='delete', port=3}\n",
                                       "");
    EXPECT_THAT(nothing.out, Not(HasSubstr("left behind")));
}

/* ---- options ---- */

TEST_F(Host, EveryOptionIsInTheManual)
{
    const std::string help = play("--help").out, manual = readFile(MANUAL);
    const std::regex option("--[a-z-]+");
    EXPECT_THAT(help, HasSubstr("--json"));
    for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at) {
        EXPECT_THAT(manual, HasSubstr("`" + at->str()));
    }
}

} // namespace
