// Registration table, hook table, notifications.
#include <gtest/gtest.h>

#include <thread>

#include "l2rsm_registry.h"
#include "support/journal.h"
#include "support/services.h"

namespace {

const L2ResNotifyCallback kFirst = [](u32, void *, void *) -> u32 { return 5; };

u32 Second(u32 event, void *record, void *data)
{
    journal::Write(journal::kNotify, journal::Join("event", event, record ? "record" : "null",
                                                   data ? "data" : "null"));
    return 0;
}

const L2ResHook kSomeHook = [] {};

TEST(Registry, AcceptsExactlyItsCells)
{
    for (const u32 table : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 0x80000000u}) {
        for (const u32 service : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 0xFFFFFFFFu}) {
            const bool known = table <= 5 && service <= 8;
            EXPECT_EQ(QOR_L2RES_IsRegister(table, service), 0u);
            EXPECT_EQ(QOR_L2RES_Register(table, service, kFirst), known ? 0u : 1u);
            EXPECT_EQ(QOR_L2RES_IsRegister(table, service), known ? 1u : 0u);
            EXPECT_EQ(QOR_L2RES_GetRegFunc(table, service), known ? kFirst : nullptr);
        }
    }
    for (const L2ResNotifyCallback callback : {Second, L2ResNotifyCallback()}) {
        EXPECT_EQ(QOR_L2RES_Register(0, 4, callback), 0u);
        EXPECT_EQ(QOR_L2RES_GetRegFunc(0, 4), callback);
        EXPECT_EQ(QOR_L2RES_IsRegister(0, 4), 1u);
    }
    EXPECT_EQ(QOR_L2RES_GetRegFunc(0, 3), kFirst) << "a neighbour was changed";
    EXPECT_TRUE(journal::Is({}));
}

template <u32 Table> u32 Register(u32 service, L2ResNotifyCallback callback)
{
    return QorL2ResNotifyRegister(Table, service, callback);
}

TEST(Registry, EachRegistrationTakesItsRowAndWritesItsLine)
{
    services::StartWorkingModule();
    struct {
        u32 (*call)(u32 service, L2ResNotifyCallback callback);
        u32 table;
        const char *name;
    } const rows[] = {{QorL2ResIcibRegister, 0, "L2ResIcibRegister"},
                      {QorL2ResEcibRegister, 1, "L2ResEcibRegister"},
                      {QorL2ResIpatRegister, 3, "L2ResIpatRegister"},
                      {Register<4>, 4, "L2ResEcibRegister"},
                      {Register<2>, 2, "L2ResEcibRegister"}};
    for (const auto &row : rows) {
        journal::Clear();
        EXPECT_EQ(row.call(2, Second), 0u);
        EXPECT_EQ(row.call(9, Second), 1u);
        const std::string good = row.name + std::string(" Ret:0, ServiceType:2.");
        const std::string bad = row.name + std::string(" Ret:1, ServiceType:9.");
        EXPECT_EQ(journal::Text(), "log 4: " + good + " | bbox 0: " + good + " | log 4: " + bad +
                                       " | bbox 0: " + bad);
        for (u32 table = 0; table < 6; ++table) {
            EXPECT_EQ(QOR_L2RES_GetRegFunc(table, 2), table == row.table ? Second : nullptr);
        }
        g_qorl2resRegTbl[row.table][2] = {};
    }
    EXPECT_EQ(Register<6>(0, Second), 1u);
}

TEST(Registry, KeepsOneHookPerType)
{
    services::StartWorkingModule();
    for (u32 type = 0; type < 6; ++type) {
        journal::Clear();
        EXPECT_EQ(QorL2ResGetHook(type), nullptr);
        EXPECT_EQ(QorL2ResHookRegister(type, kSomeHook), 0u);
        EXPECT_EQ(QorL2ResGetHook(type), kSomeHook);
        EXPECT_EQ(g_qorl2ResHookTbl[type].type, type);
        const std::string line = "L2ResHookRegister Success, Type:" + std::to_string(type) + ".";
        EXPECT_EQ(journal::Text(), "log 4: " + line + " | bbox 0: " + line);
    }
    EXPECT_EQ(QorL2ResHookRegister(2, nullptr), 0u);
    EXPECT_EQ(QorL2ResGetHook(2), nullptr);
    journal::Clear();
    EXPECT_EQ(QorL2ResHookRegister(6, kSomeHook), 1u);
    EXPECT_EQ(QorL2ResGetHook(6), nullptr);
    EXPECT_TRUE(journal::Is({}));
}

TEST(Notification, OfOneServiceIsItsCallbacksResult)
{
    int record = 0, data = 0;
    EXPECT_EQ(QorL2ResNotifyWaitingProc(3, 1, 0, &record, &data), 0u) << "nobody to tell";
    EXPECT_EQ(QorL2ResNotifyWaitingProc(6, 9, 0, &record, &data), 0u);
    QOR_L2RES_Register(3, 1, nullptr);
    EXPECT_EQ(QorL2ResNotifyWaitingProc(3, 1, 0, &record, &data), 1u) << "nobody could be told";
    QOR_L2RES_Register(3, 1, kFirst);
    EXPECT_EQ(QorL2ResNotifyWaitingProc(3, 1, 0, &record, &data), 5u);
    QOR_L2RES_Register(3, 1, Second);
    EXPECT_EQ(QorL2ResNotifyWaitingProc(3, 1, 0, &record, &data), 0u);
    EXPECT_TRUE(journal::Is({"event 0 record data"}));
}

TEST(Notification, OfARowTellsEveryServiceInOrderWhateverTheOthersAnswer)
{
    services::StartWorkingModule();
    QOR_L2RES_Register(1, 0, kFirst);
    QOR_L2RES_Register(1, 2, Second);
    QOR_L2RES_Register(1, 3, nullptr);
    QOR_L2RES_Register(1, 8, kFirst);
    QOR_L2RES_Register(0, 1, Second); // another row
    EXPECT_EQ(QorL2ResIdleNotifyProc(1), 0u);
    const std::string unable = "log 2: Icib Notify resource Available, srvType:";
    EXPECT_EQ(journal::Text(journal::kLog | journal::kNotify),
              unable + "0. | event 2 null null | " + unable + "3. | " + unable + "8.");
    journal::Clear();
    EXPECT_EQ(QorL2ResIdleNotifyProc(6), 0u);
    EXPECT_TRUE(journal::Is({}));
}

// For a race detector: a look-up beside a registration.
TEST(Notification, SeesARegistrationWhole)
{
    std::thread registrar([] { QOR_L2RES_Register(5, 8, kFirst); });
    const u32 result = QorL2ResNotifyWaitingProc(5, 8, 2, nullptr, nullptr);
    EXPECT_TRUE(result == 0 || result == 5) << "nobody to tell, or told";
    registrar.join();
}

} // namespace
