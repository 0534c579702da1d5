/*
 * The six services of component 1000 as fakes, registered with the platform's component registry.
 *
 * They work by default; a test states only what differs, before it starts the module:
 *
 *     services::Get().missing = {L2RES_IID_TIME};       no such interface
 *     services::Get().log.objFree = nullptr;            a table without that operation
 *     services::Get().results["send"] = {7};            an operation's result
 *     services::Get().results["addPara"] = {0, 5, 0};   results of its calls, 0 from the third on
 *     ASSERT_EQ(services::StartModule(), 0u);
 *
 * Operations are written to the journal with their arguments:
 *     kLog, kBlackBox   see journal.h
 *     kService          "interface 1004" when the registry is asked for one,
 *                       "initPartition 45000 l2rsm", "getPartitionNumber 45000 l2rsm",
 *                       "getSelfSlot", "dbg register QOR_L2RES",
 *                       "bbox register qor-l2rsm Forward manage l2res module"
 *     kAlarm            "getSysTime", "objCreate 5 157163554", "setAlarmComAttr H kind 1/255 time 2
 *                       code 581", "addPara H 25 6 slot 3", "addPara H 6 4 4096", "send H",
 *                       "objFree H"; H is the object's number, from 1 on. The zero fields of the
 *                       attribute record and the time record it points to are checked here.
 * Everything may be called from several threads at once; change settings only while none calls.
 */
#ifndef TESTS_SUPPORT_SERVICES_H
#define TESTS_SUPPORT_SERVICES_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "l2rsm_services.h"

namespace services {

/* Given at registration; a message that comes with another one fails the test. */
constexpr u32 kDbgId = 0x11, kBlackBoxId = 0x22;

struct Fakes {
    L2ResMemmVtbl memm;
    L2ResTimeVtbl time;
    L2ResLogVtbl log;
    L2ResOrchmVtbl orchm;
    L2ResDbgLogVtbl dbgLog;
    L2ResBlackBoxVtbl blackBox;

    std::set<u32> missing;                           /* interface ids that cannot be obtained */
    std::map<std::string, std::vector<u32>> results; /* by operation and call; the last one stays */
    u32 partition = 7;                               /* what getPartitionNumber returns */
    u32 slot = 3;                                    /* what getSelfSlot returns */

    /* Asked before `results` by every operation that can fail: its result, or 0 to go on. */
    std::function<u32(const std::string &operation)> fault;

    /* Called inside each alarm operation with its name, after the journal entry; may call the module. */
    std::function<void(const std::string &operation)> during;
};

Fakes &Get();

/* Registers component 1000. Once per process; StartModule does it itself. */
void Register();

/* Registers component 1000 if need be, runs phase 1 with the arguments 11 and 22 and returns its
   result. Leaves the journal as phase 1 filled it. */
u32 StartModule();

/* StartModule with everything working, and an empty journal afterwards. */
void StartWorkingModule();

/* A record of the platform's patch mechanism that names a library; its c_str() is the record. */
std::string PatchRecord(const std::string &library);

} // namespace services

#endif
