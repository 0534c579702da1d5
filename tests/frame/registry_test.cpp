// Registration table, hook table, notifications.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "l2rsm_registry.h"
#include "support/journal.h"
#include "support/services.h"

namespace {

using journal::Lines;

u32 First(u32, void *, void *)
{
    return 5;
}

u32 Second(u32 event, void *record, void *data)
{
    journal::Write(journal::kNotify, "event " + std::to_string(event) +
                                         (record == nullptr ? " null" : " record") +
                                         (data == nullptr ? " null" : " data"));
    return 0;
}

void SomeHook()
{
}

TEST(Registry, AcceptsExactlyItsCells)
{
    for (u32 table = 0; table < 8; ++table) {
        for (u32 service = 0; service < 11; ++service) {
            const bool known = table <= 5 && service <= 8;
            EXPECT_EQ(QOR_L2RES_IsRegister(table, service), 0u);
            EXPECT_EQ(QOR_L2RES_Register(table, service, First), known ? 0u : 1u);
            EXPECT_EQ(QOR_L2RES_IsRegister(table, service), known ? 1u : 0u);
            EXPECT_EQ(QOR_L2RES_GetRegFunc(table, service), known ? First : nullptr);
        }
    }
    for (const auto &[table, service] : {std::pair{0x80000000u, 0u}, {0u, 0xFFFFFFFFu}}) {
        EXPECT_EQ(QOR_L2RES_Register(table, service, First), 1u);
        EXPECT_EQ(QOR_L2RES_GetRegFunc(table, service), nullptr);
        EXPECT_EQ(QOR_L2RES_IsRegister(table, service), 0u);
    }
    EXPECT_EQ(QOR_L2RES_Register(0, 4, Second), 0u);
    EXPECT_EQ(QOR_L2RES_GetRegFunc(0, 4), Second);
    EXPECT_EQ(QOR_L2RES_Register(0, 4, nullptr), 0u);
    EXPECT_EQ(QOR_L2RES_GetRegFunc(0, 4), nullptr);
    EXPECT_EQ(QOR_L2RES_IsRegister(0, 4), 1u);
    EXPECT_EQ(QOR_L2RES_GetRegFunc(0, 3), First) << "a neighbour was changed";
    EXPECT_TRUE(journal::Is({}));
}

TEST(Registry, EachRegistrationTakesItsRowAndWritesItsLine)
{
    services::StartWorkingModule();
    struct {
        u32 (*call)(u32 service, L2ResNotifyCallback callback);
        u32 table;
        const char *name;
    } const rows[] = {
        {QorL2ResIcibRegister, 0, "L2ResIcibRegister"},
        {QorL2ResEcibRegister, 1, "L2ResEcibRegister"},
        {QorL2ResIpatRegister, 3, "L2ResIpatRegister"},
        {[](u32 service, L2ResNotifyCallback callback) {
             return QorL2ResNotifyRegister(4, service, callback);
         },
         4, "L2ResEcibRegister"},
        {[](u32 service, L2ResNotifyCallback callback) {
             return QorL2ResNotifyRegister(2, service, callback);
         },
         2, "L2ResEcibRegister"},
    };
    for (const auto &row : rows) {
        journal::Clear();
        EXPECT_EQ(row.call(2, Second), 0u);
        EXPECT_EQ(row.call(9, Second), 1u);
        const std::string good = row.name + std::string(" Ret:0, ServiceType:2.");
        const std::string bad = row.name + std::string(" Ret:1, ServiceType:9.");
        EXPECT_TRUE(
            journal::Is({"log 4: " + good, "bbox 0: " + good, "log 4: " + bad, "bbox 0: " + bad}));
        for (u32 table = 0; table < 6; ++table) {
            EXPECT_EQ(QOR_L2RES_GetRegFunc(table, 2), table == row.table ? Second : nullptr);
        }
        g_qorl2resRegTbl[row.table][2] = {};
    }
    journal::Clear();
    EXPECT_EQ(QorL2ResNotifyRegister(6, 0, Second), 1u);
    EXPECT_TRUE(
        journal::Is({journal::Event("L2ResEcibRegister Ret:1, ServiceType:0.")}, journal::kLog));
}

TEST(Registry, KeepsOneHookPerType)
{
    services::StartWorkingModule();
    for (u32 type = 0; type < 6; ++type) {
        journal::Clear();
        EXPECT_EQ(QorL2ResGetHook(type), nullptr);
        EXPECT_EQ(QorL2ResHookRegister(type, SomeHook), 0u);
        EXPECT_EQ(QorL2ResGetHook(type), SomeHook);
        EXPECT_EQ(g_qorl2ResHookTbl[type].type, type);
        EXPECT_TRUE(journal::Is(
            {journal::Event("L2ResHookRegister Success, Type:" + std::to_string(type) + ".")},
            journal::kLog));
    }
    EXPECT_EQ(QorL2ResHookRegister(2, nullptr), 0u);
    EXPECT_EQ(QorL2ResGetHook(2), nullptr);
    journal::Clear();
    EXPECT_EQ(QorL2ResHookRegister(6, SomeHook), 1u);
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
    QOR_L2RES_Register(3, 1, First);
    EXPECT_EQ(QorL2ResNotifyWaitingProc(3, 1, 0, &record, &data), 5u);
    QOR_L2RES_Register(3, 1, Second);
    EXPECT_EQ(QorL2ResNotifyWaitingProc(3, 1, 0, &record, &data), 0u);
    EXPECT_TRUE(journal::Is({"event 0 record data"}));
}

TEST(Notification, OfARowTellsEveryServiceInOrderWhateverTheOthersAnswer)
{
    services::StartWorkingModule();
    static int calls = 0;
    const L2ResNotifyCallback failing = [](u32, void *, void *) -> u32 {
        journal::Write(journal::kNotify, "failing " + std::to_string(++calls));
        return 7;
    };
    QOR_L2RES_Register(1, 0, failing);
    QOR_L2RES_Register(1, 2, Second);
    QOR_L2RES_Register(1, 3, nullptr);
    QOR_L2RES_Register(1, 8, failing);
    QOR_L2RES_Register(0, 1, Second); // another row
    EXPECT_EQ(QorL2ResIdleNotifyProc(1), 0u);
    EXPECT_TRUE(journal::Is(
        {"failing 1", journal::Error("Icib Notify resource Available, srvType:0."),
         "event 2 null null", journal::Error("Icib Notify resource Available, srvType:3."),
         "failing 2", journal::Error("Icib Notify resource Available, srvType:8.")},
        journal::kLog | journal::kNotify));
    journal::Clear();
    EXPECT_EQ(QorL2ResIdleNotifyProc(6), 0u);
    EXPECT_TRUE(journal::Is({}));
}

// A look-up beside a first registration sees none or all of it: never a registered service without
// its callback, which would be reported as one that could not be told.
TEST(Notification, SeesARegistrationWhole)
{
    for (int round = 0; round < 40; ++round) {
        for (u32 service = 0; service < 9; ++service) {
            g_qorl2resRegTbl[5][service] = {};
        }
        std::atomic<bool> done{false};
        std::thread registrar([&] {
            for (u32 service = 0; service < 9; ++service) {
                QOR_L2RES_Register(5, service, [](u32, void *, void *) -> u32 { return 0; });
            }
            done = true;
        });
        u32 untold = 0;
        while (!done) {
            for (u32 service = 0; service < 9; ++service) {
                untold += QorL2ResNotifyWaitingProc(5, service, 2, nullptr, nullptr);
            }
        }
        registrar.join();
        ASSERT_EQ(untold, 0u);
    }
}

} // namespace
