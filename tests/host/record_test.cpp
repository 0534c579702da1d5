/*
 * Recorded runs replayed, records that were changed or damaged, and metrics read back.
 */
#include <gmock/gmock.h>

#include <functional>
#include <map>

#include "host_program.h"

namespace {

using testing::HasSubstr;

class Record : public Host {
protected:
    const fs::path file_ = directory() / "run.jsonl";

    Outcome record(const std::string &script)
    {
        return play("--record '" + file_.string() + "' '" + script + "'");
    }

    static Outcome replay(const fs::path &file, const std::string &options = "")
    {
        return play(options + " --replay '" + file.string() + "'");
    }
};

const std::string first = std::string(SCENARIOS) + "/first.lua";

/* ---- what was recorded replays ---- */

std::vector<std::string> scenarioFiles()
{
    std::vector<std::string> files;
    for (const auto &entry : fs::directory_iterator(SCENARIOS)) {
        // The one that needs minutes with a sanitizer has a smaller sister below.
        if (entry.path().extension() == ".lua" && entry.path().stem() != "stress") {
            files.push_back(entry.path().stem());
        }
    }
    return files;
}

class RecordedScenarios : public Record, public testing::WithParamInterface<std::string> {};

TEST_P(RecordedScenarios, Replay)
{
    EXPECT_EQ(record(std::string(SCENARIOS) + "/" + GetParam() + ".lua").status, 0);
    const Outcome run = replay(file_);
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    expectLines(run.out, {"^replay: [1-9]\\d+ inputs, [1-9]\\d+ outputs, no difference\n$"});
}

INSTANTIATE_TEST_SUITE_P(Repository, RecordedScenarios, testing::ValuesIn(scenarioFiles()),
                         [](const auto &row) { return row.param; });

TEST_F(Record, ClientsOnThreadsReplayInTheirOrder)
{
    // So many keys that walks meet several entries, which different threads have made.
    const Outcome run = playScript("host.stress{clients=4, operations=150, keys=40}",
                                   "--speed 200 --record '" + file_.string() + "'");
    EXPECT_EQ(run.status, 0) << run.err;
    expectLines(readFile(file_), {R"("th":[2-9],"in":"getIcibToken")", R"("in":"message")",
                                  R"("out":"notify".*\n.*"in":"get)"}); // from a callback
    EXPECT_EQ(replay(file_).status, 0) << replay(file_).out;
}

TEST_F(Record, TheKeptOneReplays)
{
    const Outcome run = replay(fs::path(SCENARIOS) / "recorded/story.jsonl");
    EXPECT_EQ(run.status, 0) << run.out << run.err;
}

/* ---- what was changed or damaged does not ---- */

struct EditRow {
    const char *name;
    const char *pattern, *replacement; // of the first match
    std::vector<std::string> out;
    std::string err;
};

class Edited : public Record, public testing::WithParamInterface<EditRow> {};

TEST_P(Edited, IsFoundAndShown)
{
    ASSERT_EQ(record(first).status, 0);
    const std::string text = readFile(file_);
    const std::string edited =
        std::regex_replace(text, std::regex(GetParam().pattern), GetParam().replacement,
                           std::regex_constants::format_first_only);
    ASSERT_NE(edited, text);
    std::ofstream(file_) << edited;
    const Outcome run = replay(file_);
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_EQ(std::ranges::count(run.err, '\n'), 1) << run.err;
    expectLines(run.out, GetParam().out);
    expectLines(run.err, {GetParam().err});
}

const char *const differs = R"(run\.jsonl:\d+: the module does not do what the record says)";

INSTANTIATE_TEST_SUITE_P(
    Bytes, Edited,
    testing::Values(
        EditRow{"Result",
                R"(("result":\d+,"code":)4)",
                "$019",
                {R"("in":"getIcibToken")", R"(expected:\n.*"code":9\}\ngot:\n.*"code":4\})"},
                differs},
        EditRow{"LogText",
                "icib add oper,srvType:2",
                "icib add oper,srvType:3",
                {R"(expected:\n.*srvType:3.*\ngot:\n.*srvType:2)"},
                differs},
        EditRow{"NotifiedData",
                R"("notify","data":"05)",
                R"("notify","data":"06)",
                {R"(got:\n  \{"out":"notify","data":"0500)"},
                differs},
        EditRow{"NotifiedRecord", R"(("waiters":\[\{"Op":)1)", "$012", {R"(got:)"}, differs},
        EditRow{"QueryResult", R"(("entries":.*"time":)100)", "$01101", {R"(got:)"}, differs},
        EditRow{"InputThatMatters",
                R"("Stamp":200)",
                R"("Stamp":99)",
                {R"(expected:\n.*timestamp:200.*\ngot:\n.*timestamp:99)"},
                differs},
        EditRow{"Version",
                R"("version":1)",
                R"("version":2)",
                {"^$"},
                R"(run\.jsonl: the record has version 2, this program replays version 1)"},
        EditRow{"CutOff", R"(\{"end".*\n)", "", {"^$"}, "the record was cut off"},
        EditRow{"LastLineCut", R"("outputs":\d+\}\n$)", "", {"^$"}, "the record was cut off"},
        EditRow{"LineMissing", R"(\{"n":30,.*\n)", "", {}, ":31: damaged record: number 30 is"},
        EditRow{"Counts", R"(("inputs":))", "$011", {}, "damaged record: the counts"},
        EditRow{"NumberOfAnotherType", R"("n":30,)", R"("n":"x",)", {}, R"(:31: .*: n is "x")"},
        EditRow{"NoJson", R"(\{("n":30,))", "$01", {}, ":31: damaged record: no JSON object"},
        EditRow{"InputOfAnotherType", R"("op":1)", R"("op":"1")", {}, R"(getIcibToken: op is "1")"},
        EditRow{"UnknownInput", "getIcibToken", "getEcibToken", {}, "unknown operation getEcib"},
        EditRow{"AnswerOfAnotherType", R"("total":4096)", R"("total":[])", {}, R"(total is \[\])"},
        EditRow{"AnswerMissing", R"("answer":)", R"("result":)", {}, "the answer to .* missing"}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(Record, AReplayTakesNoOtherOptions)
{
    ASSERT_EQ(record(first).status, 0);
    for (const std::string option : {"--speed 5", "--trace", "--json", "-i", "--metrics m"}) {
        const Outcome run = replay(file_, option);
        EXPECT_EQ(run.status, 1);
        expectLines(run.err, {"^l2rsm-host: --\\w+ excludes --replay\n$"});
    }
}

TEST_F(Record, WhatIsLeftOfACutOneReplaysWhenAsked)
{
    ASSERT_EQ(record(first).status, 0);
    const std::string text = readFile(file_);
    // In the middle of a line, in the middle of a callback.
    std::ofstream(file_) << text.substr(0, text.find(R"("notify")") + 500);
    const Outcome run = replay(file_, "--partial");
    EXPECT_EQ(run.status, 0) << run.err;
    expectLines(run.out, {"no difference, up to where the record was cut off\n$"});
}

TEST_F(Record, FilesThatCannotBeWritten)
{
    for (const auto &[options, reason] :
         {std::pair{"--record /dev/full", "/dev/full: No space left on device\n"},
          std::pair{"--record /nonexistent/x", "/nonexistent/x: "},
          std::pair{"--metrics /nonexistent/x", "/nonexistent/x.tmp: "},
          std::pair{"--metrics /dev/null", "/dev/null: not a regular file\n"}}) {
        const Outcome run = playScript("", options);
        EXPECT_EQ(run.status, 1) << options;
        EXPECT_THAT(run.err, HasSubstr(reason));
    }
}

/* ---- components ---- */

TEST_F(Record, AComponentThatFindsTheTableItselfIsSeenLikeOthers)
{
    const fs::path metrics = directory() / "m.prom";
    const Outcome run =
        playScript("icib.register{service=1}\n"
                   "host.load('" README_CLIENT "')\n"
                   "icib.add{service=1, fwd=10, stamp=100, port=3}\n"
                   "icib.add{service=2, fwd=20, stamp=150, port=3}\n"
                   "icib.free{service=1, op='add', port=3}\n"
                   "for _, row in ipairs(show.services()) do\n"
                   "  if row.kind == 'registration' and row.service == 2 then\n"
                   "    expect(row.callback, 'component') end end",
                   "--record '" + file_.string() + "' --metrics '" + metrics.string() + "'");
    EXPECT_EQ(run.status, 0) << run.err;
    expectLines(run.out, {"host.load file=libreadme_client.so\n.*  icib.register service=2 -> 0\n",
                          "  notify event=free table=icib service=2 port=3\n"
                          ".*    icib.add service=2 fwd=20 stamp=200 port=3 -> 4 wait\n"
                          ".*  because: add by type 20, stamp 200, waits for the add last made by",
                          "expectations\n$"});
    expectLines(readFile(metrics),
                {R"(token_requests_total\{table="icib",service="2",result="waiting"\} 11\n)",
                 R"(notifications_total\{table="icib",service="2",event="free"\} [1-9])"});
    expectLines(readFile(file_), {R"("out":"notify".*\n.*"in":"getIcibToken".*"Stamp":200)"});
    const Outcome again = replay(file_);
    EXPECT_EQ(again.status, 0) << again.out << again.err;
}

/* ---- metrics ---- */

/* Samples by name and labels. Fails on a line that is not of the format. */
std::map<std::string, double> parseMetrics(const std::string &text)
{
    static const std::regex help(R"(# HELP (\w+) [^\n]+)"), type(R"(# TYPE (\w+) (counter|gauge))"),
        sample(
            R"re((\w+)((?:\{\w+="(?:[^"\\\n]|\\["\\n])*"(?:,\w+="(?:[^"\\\n]|\\["\\n])*")*\})?) (\d+))re");
    std::map<std::string, double> samples;
    std::string described, typed;
    std::istringstream lines(text);
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, match, help)) {
            described = match[1];
        } else if (std::regex_match(line, match, type)) {
            typed = match[1];
            EXPECT_EQ(typed, described);
            EXPECT_EQ(typed.ends_with("_total"), match[2] == "counter") << line;
        } else if (std::regex_match(line, match, sample)) {
            EXPECT_EQ(match[1], typed);
            EXPECT_TRUE(
                samples.emplace(match[1].str() + match[2].str(), std::stod(match[3])).second);
        } else {
            ADD_FAILURE() << line;
        }
    }
    EXPECT_TRUE(text.ends_with('\n'));
    return samples;
}

TEST_F(Record, MetricsGoOnAfterAFailedWrite)
{
    const fs::path metrics = directory() / "m.prom", temporary = directory() / "m.prom.tmp";
    // In the way for longer than the period of writing.
    const Outcome run = playScript("assert(os.execute('mkdir " + temporary.string() + "'))\n" +
                                       "icib.add{service=1, fwd=1, stamp=5} host.wait(3000)\n" +
                                       "assert(os.execute('rmdir " + temporary.string() + "'))",
                                   "--speed 1000 --metrics '" + metrics.string() + "'");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(readFile(metrics), HasSubstr("service=\"1\",result=\"granted\"} 1\n"));
}

TEST_F(Record, MetricsCountWhatHappened)
{
    const fs::path metrics = directory() / "m.prom";
    const fs::path script = directory() / "a \"quoted\"\nname\\.lua";
    std::ofstream(script) << R"(
        icib.register{service=2}
        on.notify(2, function() return 7 end)
        icib.add{service=1, fwd=1, stamp=5}
        icib.add{service=2, fwd=2, stamp=6, data="d"}
        icib.add{service=2, fwd=2, stamp=1}
        for service = 9, 99 do icib.add{service=service, fwd=2, stamp=1} end
        icib.free{service=1, op="add"}
        ipat.add{service=3, fwd=1, stamp=1, unit=1, port=1}
        vlan.assign{direction="egress", service=5, format=2, outer_tag=3}
        engine.set{table="sem", used=4096}
        alarm.check{type="sem"})";
    const Outcome run =
        play("--partition 9 --metrics '" + metrics.string() + "' '" + script.string() + "'");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_FALSE(fs::exists(metrics.string() + ".tmp"));
    const std::string text = readFile(metrics);
    const auto samples = parseMetrics(text);
    for (const auto &[name, value] : std::map<std::string, double>{
             {R"(token_requests_total{table="icib",service="1",result="granted"})", 1},
             {R"(token_requests_total{table="icib",service="2",result="waiting"})", 1},
             {R"(token_requests_total{table="icib",service="2",result="refused"})", 1},
             {R"(token_requests_total{table="icib",service="other",result="refused"})", 91},
             {R"(token_requests_total{table="ipat",service="3",result="granted"})", 1},
             {R"(notifications_total{table="icib",service="2",event="free"})", 1},
             {R"(notification_failures_total{table="icib",service="2",event="free"})", 1},
             {R"(alarm_on{table="sem"})", 1},
             {R"(alarm_changes_total{table="sem",change="raised"})", 1},
             {R"(alarm_changes_total{table="lem",change="raised"})", 0},
             {R"(vlan_ids{kind="command",direction="egress"})", 1},
             {R"(vlan_ids{kind="mapping",direction="egress"})", 1},
             {R"(vlan_ids{kind="mapping",direction="ingress"})", 0},
             {"queue_messages", 0},
             {R"(ticks_dropped_total{timer="walk"})", 0}}) {
        const auto found = samples.find("l2rsm_" + name);
        ASSERT_NE(found, samples.end()) << name << "\nin\n" << text;
        EXPECT_EQ(found->second, value) << name;
    }
    EXPECT_GT(samples.at(R"(l2rsm_partition_blocks{partition="9"})"), 0);
    EXPECT_GT(samples.at(R"(l2rsm_partition_bytes{partition="9"})"), 0);
    EXPECT_GT(samples.at(R"(l2rsm_log_lines_total{log="blackbox",level="event"})"), 0);
    EXPECT_THAT(text, HasSubstr(R"(a \"quoted\"\nname\\.lua")"));
}

TEST_F(Record, MetricsCountALoadLikeAnyOther)
{
    const fs::path metrics = directory() / "m.prom";
    const Outcome run = playScript("host.stress{clients=3, operations=200}",
                                   "--metrics '" + metrics.string() + "'");
    ASSERT_EQ(run.status, 0) << run.err;
    expectLines(readFile(metrics),
                {R"(token_requests_total\{table="icib",service="2",result="granted"\} [1-9])",
                 R"(notifications_total\{table="icib",service="\d",event="free"\} [1-9])"});
}

} // namespace
