/*
 * The module under the host: loaded, started, and called as a component would call it. Who wants to
 * know of the calls listens at the crossing.
 */
#ifndef HOST_MODULE_H
#define HOST_MODULE_H

#include <string>
#include <string_view>
#include <vector>

#include "inspect/symbols.h"
#include "inspect/words.h"
#include "l2rsm_component.h"
#include "l2rsm_entry.h"

namespace host {

using namespace inspect;

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

/*
 * A request's data as the script hands it in: with its length before it, because no data at all and
 * data of no bytes are different things. At most 65533 bytes.
 */
std::string packData(std::string_view data);
/* A component's data is taken as it is. */
std::string_view unpackData(std::string_view bytes);

class Module : public Symbols {
public:
    /* Loads the library, runs phases 1 to 3 and finds the exported table. Throws with a reason. */
    void start(const std::string &path);

    const L2RsmFunVtbl &table() const
    {
        return *table_;
    }

    /* The operations of the exported table. Each throws when the module's position is empty. */
    u32 icibRegister(u32 service, L2ResNotifyCallback callback);
    u32 ecibRegister(u32 service, L2ResNotifyCallback callback);
    u32 ipatRegister(u32 service, L2ResNotifyCallback callback);
    u32 notifyRegister(u32 tableId, u32 service, L2ResNotifyCallback callback);
    u32 getToken(const TokenRequest &request);
    u32 freeToken(const TokenRequest &request);
    u32 assignVlan(VlanEditInfo info, u16 *profileId, u32 direction);
    u32 freeVlan(VlanEditInfo info, u32 direction);
    u32 checkAlarm(u32 alarmType);

    /* Exported functions outside the table. */
    u32 icibGet(const L2ResIcibKey &key, std::vector<L2ResQueryEntry> *entries);
    u32 patch(u32 operation, const std::string &library, bool *handled);
    void dumpVlan();

    void *symbol(const char *name) const override;

private:
    std::string path_;
    const L2RsmFunVtbl *table_ = nullptr;
};

} // namespace host

#endif
