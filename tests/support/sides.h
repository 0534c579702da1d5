/*
 * The two common tables side by side, for tests that treat them alike: a table's functions and
 * records under one name each, and keys and requests that are good for either.
 */
#ifndef TESTS_SUPPORT_SIDES_H
#define TESTS_SUPPORT_SIDES_H

#include <cstring>
#include <string>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "frame/memory.h"
#include "l2rsm_registry.h"
#include "qor_thread_safety.h"

/* A key of either table. Keys of one bucket differ in `other` only. */
struct Key {
    L2ResIcibKey icib;
    L2ResIpatKey ipat;
};

inline Key MakeKey(u16 bucket = 100, u32 other = 5)
{
    Key key;
    memset(&key, 0, sizeof(key));
    key.icib = {1, 2, 3, 4, bucket, other, 6, 7, 8, 9};
    key.ipat = {other, bucket};
    return key;
}

/* A table's mutex, held as the module holds it around every call on the table. */
class Hold {
public:
    explicit Hold(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY : mutex_(mutex)
    {
        ZIR_MutexLock(mutex_);
    }
    ~Hold() QOR_NO_THREAD_SAFETY
    {
        ZIR_MutexUnlock(mutex_);
    }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

private:
    ZIR_Mutex *mutex_;
};

struct Ask {
    u32 srv;
    u16 fwd;
    u64 stamp;
    std::string data = {}; /* sent with its terminator; none when empty */
};

/* One common table. */
struct Side {
    const char *name;
    bool icib;
    u32 tableId;
    size_t behindKey; /* where a node's op record or list stands */
    HASH_Handle *opHash, *waitHash;
    ZIR_Mutex *opMutex, *waitMutex;
    u32 (*getToken)(u32, u32, L2ResTokenReq *);
    u32 (*freeToken)(u32, u32, L2ResTokenReq *);

    const void *Of(const Key &key) const
    {
        return icib ? static_cast<const void *>(&key.icib) : &key.ipat;
    }
    L2ResTokenReq Request(const Ask &ask, const Key &key) const
    {
        const bool empty = ask.data.empty();
        return {ask.stamp, ask.fwd, Of(key), static_cast<u16>(empty ? 0 : ask.data.size() + 1),
                empty ? nullptr : ask.data.c_str()};
    }
    u32 Get(u32 op, const Ask &ask, const Key &key = MakeKey()) const
    {
        L2ResTokenReq request = Request(ask, key);
        return getToken(ask.srv, op, &request);
    }
    u32 Free(u32 op, const Key &key = MakeKey(), u32 srv = 1) const
    {
        L2ResTokenReq request = {0, 0, Of(key), 0, nullptr};
        return freeToken(srv, op, &request);
    }

    /* The record functions by their exported names. */
    u32 Store(const L2ResOpRecord &record, const Key &key = MakeKey()) const
    {
        return icib ? QorL2ResIcibOpHashUpdate(&key.icib, &record)
                    : QorL2ResIpatOpHashUpdate(&key.ipat, &record);
    }
    u32 DeleteRecord(const Key &key = MakeKey()) const
    {
        return icib ? QorL2ResIcibOpDel(&key.icib) : QorL2ResIpatOpDel(&key.ipat);
    }
    u32 DeleteWaiting(const Key &key = MakeKey()) const
    {
        return icib ? QorL2ResIcibReOpDel(&key.icib) : QorL2ResIpatReOpDel(&key.ipat, *waitHash);
    }

    /* What is stored, read without a message; null when there is nothing. */
    const L2ResOpRecord *Record(const Key &key = MakeKey()) const
    {
        const Hold hold(opMutex);
        return static_cast<const L2ResOpRecord *>(Behind(HASH_FindElmtFromFirst(*opHash, Of(key))));
    }
    L2ResWaitList *Waiting(const Key &key = MakeKey()) const
    {
        const Hold hold(waitMutex);
        return static_cast<L2ResWaitList *>(Behind(HASH_FindElmtFromFirst(*waitHash, Of(key))));
    }
    unsigned WaitingCount(const Key &key = MakeKey()) const
    {
        const L2ResWaitList *list = Waiting(key);
        return list != nullptr ? list->reOpNum : 0;
    }
    void *Behind(void *node) const
    {
        return node != nullptr ? static_cast<u8 *>(node) + behindKey : nullptr;
    }

    /* The module never shortens a full IPAT list: takes the latest request out by hand. */
    void ShortenFullList(const Key &key) const
    {
        L2ResWaitList *list = Waiting(key);
        if (!icib && list != nullptr && list->reOpNum == L2RES_WAITERS_MAX) {
            (void)QorL2ResMemFree(list->entry[--list->reOpNum].data);
        }
    }
};

inline constexpr Side kIcib = {"ICIB",
                               true,
                               L2RES_TABLE_ICIB,
                               offsetof(L2ResIcibReOpRecord, waiters),
                               &g_icibOpRecordHash,
                               &g_icibReOpRecordHash,
                               &g_icibOpRecordMutex,
                               &g_icibReOpRecordMutex,
                               QorL2ResGetIcibToken,
                               QorL2ResFreeIcibToken};
inline constexpr Side kIpat = {"IPAT",
                               false,
                               L2RES_TABLE_IPAT,
                               offsetof(L2ResIpatReOpRecord, waiters),
                               &g_ipatOpRecordHash,
                               &g_ipatReOpRecordHash,
                               &g_ipatOpRecordMutex,
                               &g_ipatReOpRecordMutex,
                               QorL2ResGetIpatToken,
                               QorL2ResFreeIpatToken};
inline constexpr const Side *kSides[] = {&kIcib, &kIpat};

#endif
