/* One call of the log. */
#include <cstdarg>
#include <cstdio>

#include "bench.h"
#include "frame/dbg_log.h"

#ifdef BENCH_SPDLOG
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace bench {
namespace {

/* Values as they occur; `n` changes so that nothing can be computed once. */
#define BENCH_SIX(n) 2, 1234, 17, 100, (n) % 4096, 3
#define BENCH_ELEVEN(n) 2, 17, 1234, 100, (n) % 4096, 3, 0, 1'700'000'000'000ULL + (n), 1, 2, 1

#define BENCH_SIX_FORMAT                                                                           \
    "icib add key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d"
#define BENCH_ELEVEN_FORMAT                                                                        \
    "L2ResIcibOpHashUpdate,KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,"              \
    "Vdc:%d,Stamp:%llu,Op:%d,Srv:%d,Used:%d"

__attribute__((noinline, format(printf, 2, 3))) void Format(char (&text)[256], const char *format,
                                                            ...)
{
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    benchmark::DoNotOptimize(text);
}

template <class Write> void Lines1(benchmark::State &state, Write write, u64 linesPerCall)
{
    (void)Module();
    AttachLog(true);
    const u64 before = LinesOfThread().debugLog;
    u32 n = 0;
    for (auto _ : state) {
        write(++n);
    }
    Expect(state, "lines in the debug log", LinesOfThread().debugLog - before,
           linesPerCall * static_cast<u64>(state.iterations()));
    AttachLog(false);
}

template <class Write> void FormatOnly(benchmark::State &state, Write write)
{
    char text[256];
    u32 n = 0;
    for (auto _ : state) {
        write(text, ++n);
    }
    Expect(state, "a line was written", text[0] != 0, true);
}

void NotWritten(benchmark::State &state, u32 level)
{
    (void)Module();
    const u64 before = LinesOfThread().debugLog;
    u32 n = 0;
    for (auto _ : state) {
        QorL2ResDbgWriteLog(level, L2RES_LOG_ICIB, BENCH_SIX_FORMAT, BENCH_SIX(++n));
    }
    Expect(state, "lines in the debug log", LinesOfThread().debugLog - before, 0);
}

#ifdef BENCH_SPDLOG
template <class Write> void Spdlog(benchmark::State &state, Write write)
{
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_st>());
    logger.set_pattern("%v");
    u32 n = 0;
    for (auto _ : state) {
        write(logger, ++n);
    }
}
#endif

void AddWritten()
{
    Add("log/6/module", [](benchmark::State &state) {
        Lines1(
            state,
            [](u32 n) {
                QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB, BENCH_SIX_FORMAT,
                                    BENCH_SIX(n));
            },
            1);
    });
    Add("log/6/vsnprintf", [](benchmark::State &state) {
        FormatOnly(state,
                   [](char(&text)[256], u32 n) { Format(text, BENCH_SIX_FORMAT, BENCH_SIX(n)); });
    });
    Add("log/11/module", [](benchmark::State &state) {
        Lines1(
            state,
            [](u32 n) {
                QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_ICIB, BENCH_ELEVEN_FORMAT,
                                    BENCH_ELEVEN(n));
            },
            1);
    });
    Add("log/11/vsnprintf", [](benchmark::State &state) {
        FormatOnly(state, [](char(&text)[256], u32 n) {
            Format(text, BENCH_ELEVEN_FORMAT, BENCH_ELEVEN(n));
        });
    });
#ifdef BENCH_SPDLOG
    Add("log/6/spdlog", [](benchmark::State &state) {
        Spdlog(state, [](spdlog::logger &logger, u32 n) {
            logger.info("icib add key,keytype:{} vsiId:{} globalPort:{} outVlan:{} innerVlan:{} "
                        "pri:{}",
                        BENCH_SIX(n));
        });
    });
    Add("log/11/spdlog", [](benchmark::State &state) {
        Spdlog(state, [](spdlog::logger &logger, u32 n) {
            logger.info("L2ResIcibOpHashUpdate,KeyType:{},Port:{},Vsi:{},OutVlan:{},InnerVlan:{},"
                        "Pri:{},Vdc:{},Stamp:{},Op:{},Srv:{},Used:{}",
                        BENCH_ELEVEN(n));
        });
    });
#endif
}

} // namespace

void AddLog()
{
    AddWritten();
    Add("log/none/level", [](benchmark::State &state) {
        AttachLog(true);
        NotWritten(state, 3);
        AttachLog(false);
    });
    Add("log/none/service", [](benchmark::State &state) { NotWritten(state, L2RES_LOG_EVENT); });
}

} // namespace bench
