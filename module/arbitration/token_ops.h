/* Asking for a token. One implementation for both common tables. */
#ifndef ARBITRATION_TOKEN_OPS_H
#define ARBITRATION_TOKEN_OPS_H

#include "arbitration/tables.h"

/* A handler of the op table: judges the request, stores or waits. A token result. */
u32 HandleRequest(const CommonTable &table, u32 opType, u32 srvType, const L2ResTokenReq *req);

/* Are service type and op type ones that a token may be asked for with? */
bool TokenArgumentsValid(u32 srvType, u32 opType);

#endif
