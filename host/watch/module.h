/*
 * The module under the host: loaded, started, and called. Every call from the host into the module
 * passes here and is written to the journal, with its result.
 */
#ifndef HOST_MODULE_H
#define HOST_MODULE_H

#include <string>
#include <vector>

#include "crossing/journal.h"
#include "inspect/symbols.h"
#include "inspect/words.h"
#include "l2rsm_component.h"
#include "l2rsm_entry.h"

namespace host {

struct TokenRequest {
    TokenTable table;
    u32 service = 0;
    u32 op = L2RES_OP_ADD;
    u16 fwd = 0;
    u64 stamp = 0;
    L2ResIcibKey icib{}; // the key of the table asked
    L2ResIpatKey ipat{};
    std::string data{}; // as packData made it; empty for none
};

class Ledger;

class Module : public Symbols {
public:
    explicit Module(Journal &journal) : journal_(journal)
    {
    }

    /* Loads the library, runs phases 1 to 3 and finds the exported table. Throws with a reason. */
    void start(const std::string &path);

    const L2RsmFunVtbl &table() const
    {
        return *table_;
    }

    /* Who keeps account of requests for tokens; before the first one. */
    void setLedger(Ledger &ledger)
    {
        ledger_ = &ledger;
    }

    /* The operations of the exported table. Each throws when the module's position is empty. */
    u32 icibRegister(u32 service);
    u32 ecibRegister(u32 service);
    u32 ipatRegister(u32 service);
    u32 notifyRegister(u32 tableId, u32 service);
    u32 getToken(const TokenRequest &request);
    u32 freeToken(const TokenRequest &request);
    u32 assignVlan(VlanEditInfo info, u16 *profileId, u32 direction);
    u32 freeVlan(VlanEditInfo info, u32 direction);
    u32 checkAlarm(u32 alarmType);

    /* Exported functions outside the table. */
    u32 icibGet(const L2ResIcibKey &key, std::vector<L2ResQueryEntry> *entries);
    u32 patch(u32 operation, const std::string &library, bool *handled);
    void dumpVlan();

    /* An exported symbol of the module, for what only looks. Throws when it is missing. */
    void *symbol(const char *name) const override;

private:
    template <class Operation>
    u32 traced(const char *name, std::span<const Field> fields, const char *(*meaning)(u32),
               Operation operation);
    u32 token(const TokenRequest &request, bool get);
    u32 registered(u32 table, u32 service, u32 result);

    Journal &journal_;
    std::string path_;
    void *handle_ = nullptr;
    const L2RsmFunVtbl *table_ = nullptr;
    Ledger *ledger_ = nullptr;
};

} // namespace host

#endif
