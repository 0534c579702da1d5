/*
 * The arbitration rules: may a request operate on an entry that somebody holds?
 *
 * Pure: they read the requester's and the holder's op record, fill the verdict (which comes in
 * zeroed; fields a rule does not decide stay 0) and log. 0: the verdict counts. 1: refused.
 * Any thread, no lock, no state.
 */
#ifndef ARBITRATION_RULES_H
#define ARBITRATION_RULES_H

#include "l2rsm_arbitration.h"

QOR_BEGIN_C

QOR_API u32 QorL2ResAddMutex(const L2ResOpRecord *req, const L2ResOpRecord *holder,
                             L2ResVerdict *verdict);
QOR_API u32 QorL2ResDelMutex(const L2ResOpRecord *req, const L2ResOpRecord *holder,
                             L2ResVerdict *verdict);
QOR_API u32 QorL2ResUpdateMutex(const L2ResOpRecord *req, const L2ResOpRecord *holder,
                                L2ResVerdict *verdict);

QOR_END_C

#endif
