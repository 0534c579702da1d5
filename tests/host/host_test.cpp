/*
 * The host program end to end: scenarios that pass, what goes wrong on purpose, the files it
 * writes. A table each; a row is a script or scenario, options, and what must come of it.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host_program.h"

namespace {

using testing::HasSubstr;

/* ---- the scenarios of the repository ---- */

struct ScenarioRow {
    const char *file;
    std::vector<std::string> lines;
};

void PrintTo(const ScenarioRow &row, std::ostream *out)
{
    *out << row.file;
}

const std::vector<ScenarioRow> scenarios = {
    {"story.lua",
     {R"(icib\.add service=2 .* -> 4 wait\n)", R"(icib\.add service=3 .* -> 1 refused\n)",
      // The notified service takes the entry from within the holder's release.
      R"(icib\.free service=1 .*\n.*  notify event=free .* service=2 .*\n.*    icib\.add service=2 .* -> 0 proceed\n)",
      R"(ALARM icib_pp raised: slot 3 threshold=4096 code=581 text="The number of ICIB_PP entries exceeded)",
      R"(notify event=free table=icib service=3 .* data="group 7" \(on QOR_L2RSM\))",
      R"(ALARM icib_pp cleared: slot 3)", R"(notify event=idle table=icib service=1 )"}},
    {"first.lua", {R"(icib\.add service=2 .* -> 4 wait\n)"}},
    {"worker_release.lua", {R"(data="first" \(on QOR_L2RSM\) -> 0\n)", R"(data="second")"}},
    {"alarm_life.lua",
     {R"(ALARM lem raised: slot 5 threshold=2048 code=170)",
      R"(\n\[00:(09|1\d):.*ALARM lem raised again)", R"(ALARM lem cleared: slot 5)"}},
    {"ipat.lua", {R"(= ipat\.free -> 5 )"}},
    {"patch.lua", {R"(host\.patch operation=deactivate library=libqor_l2rsm\.so -> 0\n)"}},
    {"stress.lua", {R"(stress: notifications count=[1-9])"}},
    {"vlan.lua", {R"(vlan\.assign direction=)", R"(vlan\.release direction=)"}},
};

class Scenarios : public Host, public testing::WithParamInterface<ScenarioRow> {};

TEST_P(Scenarios, Pass)
{
    const Outcome run = play(std::string(SCENARIOS) + "/" + GetParam().file);
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(run.err, "");
    expectLines(run.out, GetParam().lines);
    expectLines(run.out, {R"(\nscenario passed: [1-9]\d* expectations\n$)"});
}

INSTANTIATE_TEST_SUITE_P(Repository, Scenarios, testing::ValuesIn(scenarios),
                         [](const auto &row) { return fs::path(row.param.file).stem().string(); });

TEST_F(Host, EveryScenarioIsPlayed)
{
    std::vector<std::string> files, rows;
    for (const auto &entry : fs::directory_iterator(SCENARIOS)) {
        if (entry.path().extension() == ".lua") {
            files.push_back(entry.path().filename());
        }
    }
    for (const ScenarioRow &row : scenarios) {
        rows.emplace_back(row.file);
    }
    EXPECT_THAT(files, testing::UnorderedElementsAreArray(rows));
}

/* ---- scripts that pass ---- */

struct ScriptRow {
    const char *name;
    const char *script;
    const char *options;
    std::vector<std::string> lines; // of standard output, or the one line of standard error
};

void PrintTo(const ScriptRow &row, std::ostream *out)
{
    *out << row.name;
}

const auto rowName = [](const auto &row) { return std::string(row.param.name); };

/* Service 1 holds entry 0; what follows makes service 2 wait for it. */
#define HELD                                                                                       \
    "icib.register{service=1} icib.register{service=2} icib.add{service=1, fwd=1, stamp=1} "
#define WAITS "icib.add{service=2, fwd=2, stamp=2, data='d'} "
#define FREES "icib.free{service=1, op='add'} "

class Scripts : public Host, public testing::WithParamInterface<ScriptRow> {};

TEST_P(Scripts, Pass)
{
    const Outcome run = playScript(GetParam().script, GetParam().options);
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(run.err, "");
    expectLines(run.out, GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(
    Good, Scripts,
    testing::Values(
        ScriptRow{"StampsUseAll64Bits",
                  "icib.add{service=1, fwd=1, stamp='18446744073709551615'}\n"
                  "expect(icib.show{}.holder.stamp, '18446744073709551615')\n"
                  "expect(icib.delete{service=1, fwd=1, stamp=math.maxinteger}, 1)",
                  "",
                  {"stamp=18446744073709551615 -> 0 proceed"}},
        ScriptRow{"DataComesBackByteForByte",
                  HELD "local got = {}\n"
                       "on.notify(2, function(_, _, data) got[#got + 1] = tostring(data) end)\n"
                       "icib.add{service=2, fwd=2, stamp=2, data='a\\0b'}\n"
                       "icib.add{service=2, fwd=2, stamp=3, data=''}\n"
                       "icib.add{service=2, fwd=2, stamp=4}\n" FREES
                       "expect(got, {'a\\0b', '', 'nil'})",
                  "",
                  {R"(data="a\\x00b")"}},
        ScriptRow{"RefusedArgumentsReachNothing",
                  "expect(pcall(icib.add, {service=1, fwd=1, stamp=-1}), false)\n"
                  "expect(icib.show{}, {waiters={}})",
                  "",
                  {}},
        ScriptRow{"HandlersRunOnTheRunningCoroutine",
                  HELD WAITS "local seen\n"
                             "on.notify(2, function(event) seen = event return 7 end)\n"
                             "coroutine.wrap(function() " FREES "end)()\n"
                             "expect(seen, 'free')",
                  "",
                  {"notify .* -> 7\n"}},
        ScriptRow{"CommandLineOverridesTheScript",
                  "-- options: --slot 9 --speed 3\n"
                  "engine.set{table='sem', used=4096} alarm.check{type='sem'}",
                  "--slot 4",
                  {"ALARM sem raised: slot 4 "}},
        // Whoever waits beside the load is told, a component as itself.
        ScriptRow{"StressLeavesOthersAlone",
                  "icib.register{service=3} icib.register{service=4}\n"
                  "icib.add{service=4, fwd=1, stamp=1, port=9} local told = {}\n"
                  "on.notify(3, function(_, _, data) told[#told + 1] = data end)\n"
                  "expect(host.load('" REGISTERED "'), 0)\n"
                  "icib.add{service=3, fwd=3, stamp=3, port=9, data='x'}\n"
                  "local r = host.stress{operations=2000, keys=2}\n"
                  "icib.free{service=4, op='delete', port=9} expect(told, {'x'})\n"
                  // With 125 rounds and counts that start anew in each, most steps are requests.
                  "expect({r.rounds, r.requests > 8000}, {125, true})\n"
                  "expect(show.services{}[2], {show='services', kind='registration',\n"
                  "    table='icib', service=1, callback='component'})",
                  "--speed 100",
                  {R"(notify event=free table=icib service=1 port=9.*-> 21\n)"}},
        // A machine that stands still lets a notification come before the wait for it.
        ScriptRow{"WaitsForTheNextNotification",
                  HELD "for i = 1, 99 do " WAITS "\n"
                       "if host.wait_for('notify', 10) then print('told') break end end",
                  "--speed 100",
                  {R"(\] told\n)"}},
        ScriptRow{"AConditionSilencesItsOwnThreadOnly",
                  HELD WAITS "host.wait_for(function() repeat until #icib.show{}.waiters == 0\n"
                             "return true end, 6000)",
                  "--speed 100",
                  {R"(notify event=free .* \(on QOR_L2RSM\) -> 0\n)"}},
        ScriptRow{"AConditionPrintsNoTables",
                  "local looks = 0 host.wait_for(function() looks = looks + 1\n"
                  "return #show.alarms{} == 0 or looks == 3 end, 6000) print('looked')",
                  "",
                  {R"(phase=3 -> 0\n.*\] looked\nscen)"}},
        ScriptRow{"TraceShowsHooksServicesAndLog",
                  "alarm.check{type='ecib'}",
                  "--trace",
                  {R"(\(hook\.count table=ecib total=4096 used=0 idle=4096 -> 0\))",
                   R"(\(orchestration\.getSelfSlot -> 1\))", R"(\(debuglog level=info )"}}),
    rowName);

/* ---- whatever goes wrong: one line on standard error, exit status 1 ---- */

class Broken : public Host, public testing::WithParamInterface<ScriptRow> {};

TEST_P(Broken, OneLineAndStatus1)
{
    const Outcome run = playScript(GetParam().script, GetParam().options);
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_THAT(run.out, testing::Not(HasSubstr("unreached")));
    EXPECT_EQ(std::ranges::count(run.err, '\n'), 1) << run.err;
    expectLines(run.err, GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(
    Bad, Broken,
    testing::Values(
        // Arguments.
        ScriptRow{"UnknownField",
                  "\nicib.register{srevice=1}",
                  "",
                  {R"(x\.lua:2: icib\.register: unknown field "srevice")"}},
        ScriptRow{"MissingField",
                  "icib.add{service=1, stamp=1}",
                  "",
                  {R"(x\.lua:1: icib\.add: field "fwd" is missing)"}},
        ScriptRow{"NotATable", "icib.add(1)", "", {"x.lua:1: icib.add: takes one table"}},
        ScriptRow{"Unnamed", "icib.register{1}", "", {"x.lua:1: .*takes named fields"}},
        ScriptRow{"TooLargeForU16",
                  "icib.add{service=1, fwd=65536, stamp=1}",
                  "",
                  {"x.lua:1: icib.add: fwd must be 0..65535, not 65536"}},
        ScriptRow{"TooLargeForU32",
                  "icib.register{service=1 << 32}",
                  "",
                  {"service must be 0..4294967295, not 4294967296"}},
        ScriptRow{"TooLargeForU64",
                  "icib.add{service=1, fwd=1, stamp='18446744073709551616'}",
                  "",
                  {R"(stamp must be 0\.\.18446744073709551615, not "18446744073709551616")"}},
        ScriptRow{"Negative", "icib.register{service=-1}", "", {"not -1"}},
        ScriptRow{"Fraction", "icib.register{service=1.5}", "", {"must be an integer, not 1.5"}},
        ScriptRow{"NumberAsText",
                  "icib.register{service='1'}",
                  "",
                  {"service must be an integer, not a string"}},
        ScriptRow{"TextTooLong",
                  "icib.add{service=1, fwd=1, stamp=1, data=string.rep('x', 65534)}",
                  "",
                  {"data must have at most 65533 bytes"}},
        ScriptRow{"UnknownName",
                  "engine.set{table='fdb'}",
                  "",
                  {R"(table must be one of "icib_pp", .*, not "fdb")"}},
        ScriptRow{"ZeroInName",
                  "ipat.register{['service\\0x']=1}",
                  "",
                  {R"(unknown field "service\\x00x"\n)"}},
        ScriptRow{"ZeroInTable",
                  "engine.set{table='lem\\0x'}",
                  "",
                  {R"(table must be one of .*, not "lem\\x00x"\n)"}},
        ScriptRow{"ZeroInStamp",
                  "icib.add{service=1, fwd=1, stamp='5\\0x'}",
                  "",
                  {R"(stamp must be .*, not "5\\x00x"\n)"}},
        ScriptRow{"ZeroInEvent", "host.wait_for('alarm\\0x', 1)", "", {"x.lua:1: host.wait_for"}},
        ScriptRow{"ZeroInValue",
                  "expect({a='a\\0x'}, {a='a'}, 'n\\0')",
                  "",
                  {R"(n\\x00: expected \{a="a"\}, got \{a="a\\x00x"\}\n)"}},
        ScriptRow{"ZeroInError", "error('a\\0b')", "", {R"(x\.lua:1: a\\x00b\n)"}},
        ScriptRow{"HandlerOfNobody", "on.notify(9, print)", "", {"service must be 0..8, not 9"}},
        ScriptRow{"TooManyArguments", "host.wait(1, 2)", "", {"host.wait: takes at most 1"}},
        ScriptRow{"NotAFunction", "on.notify(1, 5)", "", {"handler must be a function"}},
        ScriptRow{"NotACondition", "host.wait_for('never', 1)", "", {"x.lua:1: host.wait_for"}},
        // Scripts.
        ScriptRow{"Syntax", "local x =\n\n= 1", "", {"x.lua:3: unexpected symbol"}},
        ScriptRow{"LuaError", "\nnosuch.thing{}", "", {"x.lua:2: attempt to index a nil value"}},
        ScriptRow{"ErrorObject", "\nerror({})", "", {"x.lua:2: error without a message"}},
        ScriptRow{"Exit", "os.exit(0)", "", {"x.lua:1: attempt to call a nil value"}},
        ScriptRow{"Expectation",
                  "expect({1, {a=2}}, {1, {a=3}}, 'shape')",
                  "",
                  {R"(x\.lua:1: shape: expected \{1, \{a=3\}\}, got \{1, \{a=2\}\})"}},
        ScriptRow{"NestedTooDeep",
                  "local a, b = {}, {} a[1], b[1] = a, b\n\nexpect(a, b)",
                  "",
                  {"x.lua:3: expect: tables nested too deep"}},
        ScriptRow{"CaughtExpectation", "\npcall(expect, 1, 2)", "", {"x.lua:2: expected 2, got 1"}},
        ScriptRow{"HandlerInsideTheModule",
                  HELD WAITS "\non.notify(2, function() error('mine') end)\n" FREES
                             "print('unreached')",
                  "",
                  {"x.lua:2: mine"}},
        ScriptRow{"HandlerThatWaits",
                  HELD WAITS "\non.notify(2, function() host.wait(1) end) " FREES,
                  "",
                  {"x.lua:2: host.wait: a handler cannot wait"}},
        ScriptRow{"HandlerAfterTheWorker",
                  HELD "\non.notify(2, function() error('late') end)\n" WAITS
                       "host.wait(6000) print('unreached')",
                  "--speed 100",
                  {"x.lua:2: late"}},
        // Options and files.
        ScriptRow{"OptionInScript", "-- options: --sped 5", "", {"x.lua:1: .*--sped"}},
        ScriptRow{"OptionOutOfRange", "", "--speed 0", {"^l2rsm-host: --speed: "}},
        ScriptRow{"UnknownOption", "", "--bogus", {"^l2rsm-host: .*--bogus"}},
        ScriptRow{"ScenarioAsOutput", "", "--record", {"^l2rsm-host: --record: .*x.lua is a scen"}},
        ScriptRow{"RecordThatExists", "", "--record /etc/passwd", {"/etc/passwd is there already"}},
        ScriptRow{"DebugLevel", "", "--debug-level loud", {"--debug-level: loud not in"}},
        ScriptRow{"NoSuchModule",
                  "",
                  "--module /nonexistent.so",
                  {"cannot load the module: /nonexistent.so: "}},
        ScriptRow{"NotALibrary", "", "--module /etc/passwd", {"cannot load the module: .*ELF"}},
        ScriptRow{"AnotherLibrary", "", "--module libm.so.6", {"libm.so.6 has no QorL2ResInit"}},
        ScriptRow{"BlackBoxFull",
                  "icib.register{service=1}",
                  "--black-box /dev/full",
                  {"^l2rsm-host: /dev/full: No space left on device"}},
        ScriptRow{"DebugLogFull", "", "--debug-log /dev/full", {"/dev/full: No space left"}},
        ScriptRow{"BlackBoxNowhere", "", "--black-box /nonexistent/x", {"/nonexistent/x: "}}),
    rowName);

TEST_F(Host, NeedsAScriptThatCanBeRead)
{
    for (const auto &[arguments, reason] : {std::pair{"/nonexistent.lua", "/nonexistent.lua: "},
                                            std::pair{"/tmp", "/tmp: is a directory"}}) {
        const Outcome run = play(arguments);
        EXPECT_EQ(run.status, 1);
        EXPECT_THAT(run.err, HasSubstr(reason));
    }
}

/* ---- files ---- */

TEST_F(Host, BlackBoxKeepsWhatEarlierRunsWrote)
{
    const fs::path box = directory() / "box", log = directory() / "log";
    const std::string options =
        "--debug-level error --debug-log " + log.string() + " --black-box " + box.string();
    const char *script = "icib.register{service=9}\n"
                         "icib.free{service=1, op='add'}";
    EXPECT_EQ(playScript(script, options).status, 0);
    const std::string first = readFile(box);
    expectLines(first, {R"(\] event L2ResIcibRegister Ret:1, ServiceType:9\.\n)",
                        R"(\] error icib op record is not exist\.srvType:1,opType:1\n)"});
    // The debug log has the errors alone, and only of the last run.
    EXPECT_EQ(playScript("error('stop')", options).status, 1);
    EXPECT_EQ(readFile(box).substr(0, first.size()), first);
    EXPECT_GT(readFile(box).size(), first.size());
    EXPECT_EQ(playScript(script, options).status, 0);
    EXPECT_THAT(readFile(log), testing::MatchesRegex("\\[[0-9:.]+\\] error icib op record.*\n"));
}

TEST_F(Host, ManualIsThatOfTheProgram)
{
    const Outcome run = play("--manual");
    EXPECT_EQ(run.status, 0);
    EXPECT_GT(run.out.size(), 1000U);
    // Taken over with: l2rsm-host --manual, below the manual's last line of prose.
    EXPECT_THAT(readFile(MANUAL), testing::EndsWith(run.out));
}

} // namespace
