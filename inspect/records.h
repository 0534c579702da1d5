/*
 * The records that clients and module share, a row a field: what everybody who reads, writes, prints
 * or judges one goes by.
 */
#ifndef INSPECT_RECORDS_H
#define INSPECT_RECORDS_H

#include <string>
#include <vector>

#include "inspect/fields.h"
#include "l2rsm_arbitration.h"
#include "l2rsm_services.h"
#include "l2rsm_vlan_edit.h"

namespace inspect {

struct Row {
    const char *name;           // the headers'
    const char *word = nullptr; // a person's; null where none is shown one
    u32 low = 0, high = ~0U;    // what the module accepts
};

/* visit(row, field) for each field of the record, in its order. */
template <class Visit> void eachField(L2ResIcibKey &key, Visit visit)
{
    visit(Row{"keyType", "keytype"}, key.keyType);
    visit(Row{"GlobalPort", "port"}, key.GlobalPort);
    visit(Row{"Vsi", "vsi"}, key.Vsi);
    visit(Row{"keyAttr1", "attr1"}, key.keyAttr1);
    visit(Row{"OutVlan", "outvlan"}, key.OutVlan);
    visit(Row{"keyAttr2", "attr2"}, key.keyAttr2);
    visit(Row{"InnerVlan", "innervlan"}, key.InnerVlan);
    visit(Row{"keyAttr3", "attr3"}, key.keyAttr3);
    visit(Row{"Pri", "pri"}, key.Pri);
    visit(Row{"Vdc", "vdc"}, key.Vdc);
}

template <class Visit> void eachField(L2ResIpatKey &key, Visit visit)
{
    visit(Row{"unit", "unit"}, key.unit);
    visit(Row{"port", "port"}, key.port);
}

template <class Visit> void eachField(L2ResOpRecord &op, Visit visit)
{
    visit(Row{"Stamp"}, op.Stamp);
    visit(Row{"Op"}, op.Op);
    visit(Row{"SrvType"}, op.SrvType);
    visit(Row{"Used"}, op.Used);
}

template <class Visit> void eachField(L2ResQueryEntry &entry, Visit visit)
{
    visit(Row{"time"}, entry.time);
    visit(Row{"optype"}, entry.optype);
    visit(Row{"servicename"}, entry.servicename);
    visit(Row{"iswaiting"}, entry.iswaiting);
}

/* A command, or the same fields of a request. */
template <class Record, class Visit> void eachEditField(Record &edit, Visit visit)
{
    visit(Row{"outerTag", "outer_tag", 1, 4}, edit.outerTag);
    visit(Row{"innerTag", "inner_tag", 1, 4}, edit.innerTag);
    visit(Row{"outerPri", "outer_pri", 1, 4}, edit.outerPri);
    visit(Row{"innerPri", "inner_pri", 1, 4}, edit.innerPri);
    visit(Row{"outerTpid", "outer_tpid", 0, 3}, edit.outerTpid);
    visit(Row{"innerTpid", "inner_tpid", 0, 3}, edit.innerTpid);
    visit(Row{"outerTpidAction", "outer_tpid_action", 1, 4}, edit.outerTpidAction);
    visit(Row{"innerTpidAction", "inner_tpid_action", 1, 4}, edit.innerTpidAction);
}

template <class Visit> void eachField(VlanEditCommand &command, Visit visit)
{
    eachEditField(command, visit);
}

template <class Visit> void eachField(VlanEditInfo &info, Visit visit)
{
    visit(Row{"servType", "service", 1, 12}, info.servType);
    visit(Row{"tagFormat", "format", 1, 7}, info.tagFormat);
    eachEditField(info, visit);
}

template <class Visit> void eachField(L2ResAlarmAttr &attr, Visit visit)
{
    visit(Row{"alarmKind"}, attr.alarmKind);
    visit(Row{"kindCode"}, attr.kindCode);
    visit(Row{"timeKind"}, attr.timeKind);
    visit(Row{"zero12"}, attr.zero12);
    visit(Row{"tableAlarmCode"}, attr.tableAlarmCode);
    visit(Row{"zero28"}, attr.zero28);
    visit(Row{"zero32"}, attr.zero32);
}

/* The fields in words. */
template <class Record>
std::vector<Field> wordFields(Record record, Field::Show show = Field::Show::always)
{
    std::vector<Field> fields;
    eachField(record, [&](const Row &row, auto field) {
        fields.push_back({row.word, field, show});
    });
    return fields;
}

/* A key's; zeroes of an ICIB key are not printed. */
inline std::vector<Field> keyFields(const L2ResIcibKey &key)
{
    return wordFields(key, Field::Show::unlessEmpty);
}
inline std::vector<Field> keyFields(const L2ResIpatKey &key)
{
    return wordFields(key);
}

/* "format 8 is not 1 to 7" of the first field out of its range; "" when there is none. */
template <class Record> std::string rangeFault(Record record)
{
    std::string fault;
    eachField(record, [&](const Row &row, auto field) {
        if (fault.empty() && (field < row.low || field > row.high)) {
            fault = notWithin(row.word, field, row.low, row.high);
        }
    });
    return fault;
}

} // namespace inspect

#endif
