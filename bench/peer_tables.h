/*
 * Tables of ICIB keys and op records under one mutex: the module's, and what one would use instead.
 * Same key, same record, same equality, same hash function for all peers. A find copies the record
 * out, as it may change when the mutex is free again.
 */
#ifndef BENCH_PEER_TABLES_H
#define BENCH_PEER_TABLES_H

#include <mutex>
#include <string_view>
#include <unordered_map>

#include "arbitration/icib.h"
#include "frame/memory.h"
#include "hash_table.h"

#ifdef BENCH_ABSL
#include <absl/container/flat_hash_map.h>
#endif
#ifdef BENCH_BOOST
#include <boost/unordered/unordered_flat_map.hpp>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif
#ifdef BENCH_TBB
#include <tbb/concurrent_hash_map.h>
#endif
#ifdef BENCH_URCU
#include <urcu.h>
#include <urcu/rculfhash.h>
#endif

namespace bench {

inline bool SameKey(const L2ResIcibKey &a, const L2ResIcibKey &b)
{
    return a.keyType == b.keyType && a.GlobalPort == b.GlobalPort && a.Vsi == b.Vsi &&
           a.keyAttr1 == b.keyAttr1 && a.OutVlan == b.OutVlan && a.keyAttr2 == b.keyAttr2 &&
           a.InnerVlan == b.InnerVlan && a.keyAttr3 == b.keyAttr3 && a.Pri == b.Pri &&
           a.Vdc == b.Vdc;
}

/* The standard library's hash of all that tells keys apart; not of the padding. */
inline size_t HashKey(const L2ResIcibKey &k)
{
    const u32 words[] = {k.keyType,  u32{k.GlobalPort} << 16 | k.Vsi,
                         k.keyAttr1, u32{k.OutVlan} << 16 | k.InnerVlan,
                         k.keyAttr2, k.keyAttr3,
                         k.Pri,      k.Vdc};
    return std::hash<std::string_view>()({reinterpret_cast<const char *>(words), sizeof words});
}

struct KeyHash {
    size_t operator()(const L2ResIcibKey &key) const
    {
        return HashKey(key);
    }
};

/* The best that could be written for just this key: two multiplications. */
struct HandWrittenHash {
    size_t operator()(const L2ResIcibKey &k) const
    {
        const u64 place = static_cast<u64>(k.GlobalPort) << 48 | static_cast<u64>(k.Vsi) << 32 |
                          static_cast<u64>(k.OutVlan) << 16 | k.InnerVlan;
        const u64 rest = (static_cast<u64>(k.keyType ^ k.Pri << 8) << 32 | k.Vdc) +
                         (static_cast<u64>(k.keyAttr1 ^ k.keyAttr2 << 10) << 20) + k.keyAttr3;
        const u64 mixed = (place * 0x9E3779B97F4A7C15 ^ rest) * 0xBF58476D1CE4E5B9;
        return mixed ^ mixed >> 32;
    }
};

struct KeyEqual {
    bool operator()(const L2ResIcibKey &a, const L2ResIcibKey &b) const
    {
        return SameKey(a, b);
    }
};

/* The platform's table with the module's functions and a mutex of the platform's. */
class ModuleTable {
public:
    struct Node {
        L2ResIcibKey key;
        u32 reserved;
        L2ResOpRecord record;
    };
    static_assert(sizeof(Node) == 56);

    ModuleTable()
    {
        (void)ZIR_MutexInit(&mutex_, nullptr);
        table_ = HASH_CreateNew(QorL2ResGetMemPtNo(), sizeof(Node), 1024, QorL2ResIcibHashFunc,
                                QorL2ResIcibCompFunc, 0);
    }
    ~ModuleTable()
    {
        HASH_DeleteHash(&table_);
    }
    ModuleTable(const ModuleTable &) = delete;
    ModuleTable &operator=(const ModuleTable &) = delete;

    void Insert(const L2ResIcibKey &key, const L2ResOpRecord &record)
    {
        ZIR_MutexLock(&mutex_);
        auto *node = static_cast<Node *>(HASH_NewData(table_, 0));
        *node = {key, 0, record};
        (void)HASH_AddNode(table_, node, node, 0);
        ZIR_MutexUnlock(&mutex_);
    }

    bool Find(const L2ResIcibKey &key, L2ResOpRecord *record)
    {
        ZIR_MutexLock(&mutex_);
        const auto *node = static_cast<Node *>(HASH_FindElmtFromFirst(table_, &key));
        if (node != nullptr) {
            *record = node->record;
        }
        ZIR_MutexUnlock(&mutex_);
        return node != nullptr;
    }

private:
    ZIR_Mutex mutex_;
    HASH_Handle table_;
};

/* Any map with the standard library's interface. */
template <class Map> class MapTable {
public:
    void Insert(const L2ResIcibKey &key, const L2ResOpRecord &record)
    {
        const std::lock_guard lock(mutex_);
        map_.emplace(key, record);
    }

    bool Find(const L2ResIcibKey &key, L2ResOpRecord *record)
    {
        const std::lock_guard lock(mutex_);
        const auto found = map_.find(key);
        if (found == map_.end()) {
            return false;
        }
        *record = found->second;
        return true;
    }

    bool Erase(const L2ResIcibKey &key)
    {
        const std::lock_guard lock(mutex_);
        return map_.erase(key) != 0;
    }

private:
    std::mutex mutex_;
    Map map_;
};
using StdTable = MapTable<std::unordered_map<L2ResIcibKey, L2ResOpRecord, KeyHash, KeyEqual>>;
using StdTableOwnHash =
    MapTable<std::unordered_map<L2ResIcibKey, L2ResOpRecord, HandWrittenHash, KeyEqual>>;
#ifdef BENCH_ABSL
using AbslTable = MapTable<absl::flat_hash_map<L2ResIcibKey, L2ResOpRecord, KeyHash, KeyEqual>>;
#endif
#ifdef BENCH_BOOST
using BoostTable =
    MapTable<boost::unordered_flat_map<L2ResIcibKey, L2ResOpRecord, KeyHash, KeyEqual>>;
#endif

/* 1024 buckets of nodes allocated one by one and linked, latest first. */
class ListTable {
public:
    ListTable() = default;
    ~ListTable()
    {
        for (Node *node : buckets_) {
            while (node != nullptr) {
                Node *next = node->next;
                delete node;
                node = next;
            }
        }
    }
    ListTable(const ListTable &) = delete;
    ListTable &operator=(const ListTable &) = delete;

    void Insert(const L2ResIcibKey &key, const L2ResOpRecord &record)
    {
        const std::lock_guard lock(mutex_);
        Node *&bucket = buckets_[key.OutVlan % 1024];
        bucket = new Node{bucket, key, record};
    }

    bool Find(const L2ResIcibKey &key, L2ResOpRecord *record)
    {
        const std::lock_guard lock(mutex_);
        const Node *node = buckets_[key.OutVlan % 1024];
        while (node != nullptr && !SameKey(node->key, key)) {
            node = node->next;
        }
        if (node != nullptr) {
            *record = node->record;
        }
        return node != nullptr;
    }

private:
    struct Node {
        Node *next;
        L2ResIcibKey key;
        L2ResOpRecord record;
    };
    std::mutex mutex_;
    Node *buckets_[1024] = {};
};

#ifdef BENCH_GLIB
class GlibTable {
public:
    GlibTable()
    {
        g_mutex_init(&mutex_);
        table_ = g_hash_table_new_full(Hash, Equal, nullptr, g_free);
    }
    ~GlibTable()
    {
        g_hash_table_destroy(table_);
        g_mutex_clear(&mutex_);
    }
    GlibTable(const GlibTable &) = delete;
    GlibTable &operator=(const GlibTable &) = delete;

    void Insert(const L2ResIcibKey &key, const L2ResOpRecord &record)
    {
        g_mutex_lock(&mutex_);
        auto *node = g_new(Node, 1);
        *node = {key, record};
        g_hash_table_insert(table_, &node->key, node);
        g_mutex_unlock(&mutex_);
    }

    bool Find(const L2ResIcibKey &key, L2ResOpRecord *record)
    {
        g_mutex_lock(&mutex_);
        const auto *node = static_cast<Node *>(g_hash_table_lookup(table_, &key));
        if (node != nullptr) {
            *record = node->record;
        }
        g_mutex_unlock(&mutex_);
        return node != nullptr;
    }

    bool Erase(const L2ResIcibKey &key)
    {
        g_mutex_lock(&mutex_);
        const bool erased = g_hash_table_remove(table_, &key) != 0;
        g_mutex_unlock(&mutex_);
        return erased;
    }

private:
    struct Node {
        L2ResIcibKey key;
        L2ResOpRecord record;
    };
    static guint Hash(gconstpointer key)
    {
        return static_cast<guint>(HashKey(*static_cast<const L2ResIcibKey *>(key)));
    }
    static gboolean Equal(gconstpointer a, gconstpointer b)
    {
        return SameKey(*static_cast<const L2ResIcibKey *>(a),
                       *static_cast<const L2ResIcibKey *>(b));
    }
    GMutex mutex_;
    GHashTable *table_;
};
#endif

#ifdef BENCH_TBB
/* Locks per bucket, inside. */
class TbbTable {
public:
    void Insert(const L2ResIcibKey &key, const L2ResOpRecord &record)
    {
        map_.emplace(key, record);
    }

    bool Find(const L2ResIcibKey &key, L2ResOpRecord *record)
    {
        Map::const_accessor found;
        if (!map_.find(found, key)) {
            return false;
        }
        *record = found->second;
        return true;
    }

    bool Erase(const L2ResIcibKey &key)
    {
        return map_.erase(key);
    }

private:
    struct Compare {
        static size_t hash(const L2ResIcibKey &key)
        {
            return HashKey(key);
        }
        static bool equal(const L2ResIcibKey &a, const L2ResIcibKey &b)
        {
            return SameKey(a, b);
        }
    };
    using Map = tbb::concurrent_hash_map<L2ResIcibKey, L2ResOpRecord, Compare>;
    Map map_;
};
#endif

#ifdef BENCH_URCU
/* Searched without a lock. Its entries are never removed, and last as long as the process. */
class UrcuTable {
public:
    void Insert(const L2ResIcibKey &key, const L2ResOpRecord &record)
    {
        const ReadLock lock;
        auto *node = new Node{{}, key, record};
        cds_lfht_add(table_, HashKey(key), &node->link);
    }

    bool Find(const L2ResIcibKey &key, L2ResOpRecord *record)
    {
        const ReadLock lock;
        cds_lfht_iter found = {};
        cds_lfht_lookup(table_, HashKey(key), Matches, &key, &found);
        const auto *node = reinterpret_cast<const Node *>(cds_lfht_iter_get_node(&found));
        if (node != nullptr) {
            *record = node->record;
        }
        return node != nullptr;
    }

private:
    struct Node {
        cds_lfht_node link;
        L2ResIcibKey key;
        L2ResOpRecord record;
    };
    struct ReadLock {
        ReadLock()
        {
            static thread_local const bool registered = (rcu_register_thread(), true);
            benchmark::DoNotOptimize(registered);
            rcu_read_lock();
        }
        ~ReadLock()
        {
            rcu_read_unlock();
        }
        ReadLock(const ReadLock &) = delete;
        ReadLock &operator=(const ReadLock &) = delete;
    };
    static int Matches(cds_lfht_node *node, const void *key)
    {
        return SameKey(reinterpret_cast<const Node *>(node)->key,
                       *static_cast<const L2ResIcibKey *>(key));
    }
    /* As large as the rows need at once: it grows on a thread of its own, behind the measurement. */
    cds_lfht *table_ = cds_lfht_new(65536, 1024, 0, CDS_LFHT_AUTO_RESIZE, nullptr);
};
#endif

} // namespace bench

#endif
