#include "watch/reasons.h"

#include <optional>
#include <utility>

#include "inspect/records.h"
#include "inspect/vlan_tables.h"

namespace host {

using namespace crossing;

/* What the engine answered the VLAN hook within the call that the thread is in; none: not asked. */
static thread_local std::optional<u32> t_engineAnswer;

static std::string editFault(const VlanEditInfo *info, u32 direction)
{
    if (info == nullptr) {
        return "there is no request";
    }
    return direction == L2RES_VLAN_INGRESS || direction == L2RES_VLAN_EGRESS
               ? ""
               : notWithin("direction", direction, L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS);
}

/* The module writes a profile that it has selected; it may be what stood there before. */
static bool isSelected(const VlanAssign &call, const Symbols &module)
{
    const u16 id = *call.profile;
    return id != call.before || (id < L2RES_VLAN_PROFILE_COUNT &&
                                 vlanTables(module, call.flag).profiles[id] == call.info->servType);
}

static std::string reasonOf(const VlanAssign &call, const Symbols &module)
{
    if (std::string fault = editFault(call.info, call.flag); !fault.empty()) {
        return fault;
    }
    if (call.profile == nullptr) {
        return "there is no place for the profile id";
    }
    if (std::string fault = rangeFault(*call.info); !fault.empty()) {
        return fault;
    }
    return isSelected(call, module)
               ? "no command id is left; profile " + std::to_string(*call.profile) + " stays taken"
               : "no profile id is left for service " + std::to_string(call.info->servType);
}

static std::string reasonOf(const VlanRelease &call, const Symbols &)
{
    if (std::string fault = editFault(call.info, call.flag); !fault.empty()) {
        return fault;
    }
    const u32 service = call.info->servType;
    if (service < 1 || service > 12) {
        return notWithin("service", service, 1, 12);
    }
    // A refusal of the engine leaves the books as they are, so that it can be tried again.
    return t_engineAnswer.value_or(QOR_OK) != QOR_OK
               ? "the engine answered " + std::to_string(*t_engineAnswer) +
                     "; the edit stays booked"
               : "no such edit is booked for service " + std::to_string(service);
}

static std::string reasonOf(const Register &call, const Symbols &)
{
    return call.table >= L2RES_TABLE_COUNT
               ? notWithin("table", call.table, 0, L2RES_TABLE_COUNT - 1)
               : notWithin("service", call.service, 0, L2RES_SERVICE_COUNT - 1);
}

static std::string reasonOf(const auto &, const Symbols &)
{
    return "";
}

void Reasons::pass(Passage &passage, const Next &next)
{
    if (std::holds_alternative<VlanHook>(passage.event)) {
        next();
        t_engineAnswer = passage.code;
        return;
    }
    if (!isInwards(passage.event)) {
        next();
        return;
    }
    const auto outer = std::exchange(t_engineAnswer, std::nullopt);
    next();
    const std::string reason =
        passage.code == QOR_OK
            ? ""
            : std::visit([&](const auto &event) { return reasonOf(event, module_); },
                         passage.event);
    if (!reason.empty()) {
        journal_.writeReason(reason);
    }
    t_engineAnswer = outer;
}

} // namespace host
