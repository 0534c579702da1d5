#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>

#include "hash_table.h"
#include "platform_support.h"

namespace {

constexpr u8 PARTITION = 9;

/* `dirt` stands for padding: not part of the key's identity. */
struct Key {
    u64 head;
    u32 tail;
    u32 dirt;
};

struct Node {
    Key key;
    u64 value;
};

u32 g_buckets;

u32 hashKey(const void *key)
{
    return static_cast<u32>(static_cast<const Key *>(key)->tail % g_buckets);
}

u32 hashBeyond(const void *)
{
    return g_buckets;
}

u32 compareKeys(const void *a, const void *b)
{
    const auto *left = static_cast<const Key *>(a);
    const auto *right = static_cast<const Key *>(b);
    return left->head == right->head && left->tail == right->tail ? 1 : 0;
}

HASH_Handle create(u32 buckets, u32 option = 0)
{
    g_buckets = buckets;
    HASH_Handle table =
        HASH_CreateNew(PARTITION, sizeof(Node), buckets, hashKey, compareKeys, option);
    EXPECT_NE(table, nullptr);
    return table;
}

Node *newNode(HASH_Handle table, u64 head, u32 tail, u64 value = 0)
{
    auto *node = static_cast<Node *>(HASH_NewData(table, 0));
    if (node != nullptr) {
        *node = {{head, tail, static_cast<u32>(value)}, value};
    }
    return node;
}

Node *add(HASH_Handle table, u64 head, u32 tail, u64 value = 0)
{
    Node *node = newNode(table, head, tail, value);
    EXPECT_EQ(HASH_AddNode(table, node, node, 0), 0U);
    return node;
}

void deleteAndExpectNothingLeft(HASH_Handle table)
{
    HASH_DeleteHash(&table);
    EXPECT_EQ(table, nullptr);
    expectLive(PARTITION, 0, 0);
}

using Model = std::map<std::pair<u64, u32>, Node *>;

HASH_Stat expectSame(HASH_Handle table, const Model &model, u64 buffers)
{
    HASH_Stat stat;
    HASH_GetStat(table, &stat);
    ZIR_PartitionStat memory;
    ZIR_PartitionGetStat(PARTITION, &memory);
    EXPECT_EQ(stat.bytes, memory.liveBytes);
    EXPECT_EQ(stat.nodes, model.size());
    EXPECT_EQ(stat.buffers, buffers);
    std::set<Node *> met;
    for (HASH_Element *e = HASH_GetFirstNode(table); e != nullptr; e = HASH_GetNextNode(table)) {
        EXPECT_TRUE(met.insert(static_cast<Node *>(e->node)).second) << "met twice";
    }
    EXPECT_EQ(met.size(), model.size());
    for (const auto &[key, node] : model) {
        EXPECT_EQ(met.count(node), 1U);
        EXPECT_EQ(node->value, key.first * 1000 + key.second);
    }
    return stat;
}

/*
 * Few heads, so that tags collide; one bucket, few and many. Half of the time the partition has a
 * limit: wherever it strikes, the table stays whole and the buffer its taker's.
 */
TEST(HashTableTest, BehavesAsAMap)
{
    std::mt19937 generator(20240517);
    const auto pick = [&](u32 count) { return static_cast<u32>(generator() % count); };
    u32 nodesRefused = 0, entriesRefused = 0;
    for (const auto &[buckets, option, tails] : {std::tuple{1U, 0U, 40U},
                                                 {1U, u32{HASH_ANY_KEY}, 40U},
                                                 {7U, 0U, 300U},
                                                 {1024U, 0U, 700U}}) {
        HASH_Handle table = create(buckets, option);
        Model model;
        std::vector<Node *> buffers;
        for (u32 step = 0; step < 20000; ++step) {
            const u64 head = pick(5);
            const u32 tail = pick(tails);
            const Key key = {head, tail, pick(3)};
            const auto known = model.find({head, tail});
            /* Phases of growth and of decline. */
            const u32 action = pick(step / 2000 % 2 == 0 ? 4 : 7);
            if (action == 0) {
                ASSERT_EQ(HASH_FindElmtFromFirst(table, &key),
                          known != model.end() ? known->second : nullptr);
            } else if (action > 3) {
                ASSERT_EQ(HASH_RemoveElmtByKey(table, &key), known != model.end() ? 0U : 1U);
                if (known != model.end()) {
                    model.erase(known);
                }
            } else if (Node *node = newNode(table, head, tail, head * 1000 + tail)) {
                const bool adds = action > 1 && known == model.end();
                if (adds && HASH_AddNode(table, node, node, 0) == 0) {
                    model[{head, tail}] = node;
                } else {
                    buffers.push_back(node);
                    entriesRefused += adds;
                }
            } else {
                ++nodesRefused;
            }
            if (buffers.size() > 20) {
                buffers[step % 20]->value = 1; /* still a buffer, still writable */
                HASH_FreeData(table, buffers[step % 20]);
                buffers.erase(buffers.begin() + step % 20);
            }
            if (step % 250 == 0) {
                const HASH_Stat stat = expectSame(table, model, buffers.size());
                ZIR_PartitionSetLimit(PARTITION, pick(2) != 0 ? stat.bytes + pick(0x1000) : 0);
            }
        }
        expectSame(table, model, buffers.size());
        ZIR_PartitionSetLimit(PARTITION, 0);
        deleteAndExpectNothingLeft(table);
    }
    EXPECT_GT(nodesRefused, 20U);
    EXPECT_GT(entriesRefused, 20U);
    ZIR_PartitionSetLimit(PARTITION, 0x40);
    EXPECT_EQ(HASH_CreateNew(PARTITION, sizeof(Node), 4, hashKey, compareKeys, 0), nullptr);
    ZIR_PartitionSetLimit(PARTITION, 0);
}

/*
 * A table of six nodes: at each step of the iteration each subset is removed, and some nodes are
 * added. What was there and stays must be met exactly once.
 */
TEST(HashTableTest, IterationToleratesRemovalAndInsertion)
{
    constexpr u32 NODES = 6;
    for (u32 added : {0U, 40U}) {
        for (u32 buckets : {1U, 4U}) {
            for (u32 subset = 0; subset < 1U << NODES; ++subset) {
                for (u32 step = 0; step < NODES; ++step) {
                    HASH_Handle table = create(buckets);
                    for (u32 i = 0; i < NODES; ++i) {
                        add(table, 0, i);
                    }
                    const auto removed = [&](u32 i) { return (subset >> i & 1) != 0; };
                    std::vector<u32> met(NODES + 40);
                    u32 current = 0;
                    for (HASH_Element *e = HASH_GetFirstNode(table); e != nullptr;
                         e = HASH_GetNextNode(table), ++current) {
                        ASSERT_EQ(met.at(static_cast<Node *>(e->node)->key.tail)++, 0U);
                        for (u32 i = 0; current == step && i < NODES; ++i) {
                            const Key key = {0, i, 1};
                            EXPECT_EQ(removed(i) ? HASH_RemoveElmtByKey(table, &key) : 0U, 0U);
                        }
                        for (u32 i = 0; current == step && i < added; ++i) {
                            add(table, 0, NODES + i);
                        }
                    }
                    for (u32 i = 0; i < NODES; ++i) {
                        ASSERT_TRUE(met[i] == 1 || removed(i))
                            << "subset " << subset << " step " << step;
                    }
                    HASH_DeleteHash(&table);
                    ASSERT_EQ(HASH_GetNextNode(table), nullptr);
                }
            }
        }
    }
}

/* The values met, in their order. */
std::vector<u64> orderOf(HASH_Handle table)
{
    std::vector<u64> order;
    for (HASH_Element *e = HASH_GetFirstNode(table); e != nullptr; e = HASH_GetNextNode(table)) {
        order.push_back(static_cast<Node *>(e->node)->value);
    }
    return order;
}

/* One of many calls: mostly a node comes, or one goes by the key that stands in it. */
void act(HASH_Handle table, u32 step)
{
    const Key key = {1, step * 7919 % 400, 0};
    auto *node = static_cast<Node *>(HASH_FindElmtFromFirst(table, &key));
    if (node == nullptr) {
        add(table, key.head, key.tail, step);
    } else {
        EXPECT_EQ(HASH_RemoveElmtByKey(table, node), 0U);
    }
}

/* By turns on many threads or all on one: the order of an iteration is the same. */
TEST(HashTableTest, OrderHangsOnTheCallsAlone)
{
    constexpr u32 STEPS = 3000;
    HASH_Handle tables[] = {create(16), create(16)};
    for (u32 step = 0; step < STEPS; step += 10) {
        onThreads(1, [&](u32) {
            for (u32 i = 0; i < 10; ++i) {
                act(tables[0], step + i);
            }
        });
    }
    for (u32 step = 0; step < STEPS; ++step) {
        act(tables[1], step);
    }
    const std::vector<u64> order = orderOf(tables[1]);
    EXPECT_GT(order.size(), 100U);
    EXPECT_EQ(orderOf(tables[0]), order);
    EXPECT_FALSE(std::is_sorted(order.begin(), order.end())) << "nodes are used again";
    for (u32 i = 0; i < 200; ++i) {
        add(tables[1], 2, i);
    }
    EXPECT_EQ(HASH_GetNextNode(tables[1]), nullptr) << "after its end an iteration does not go on";
    HASH_DeleteHash(&tables[0]);
    deleteAndExpectNothingLeft(tables[1]);
}

/* Of a key's `g_keySize` bytes the second is padding; the others count modulo `g_modulo`. */
u32 g_keySize, g_modulo;

u32 compareBytes(const void *a, const void *b)
{
    EXPECT_EQ(reinterpret_cast<u64>(b) % 8, 0U) << "nodes are aligned for any field";
    const auto *left = static_cast<const u8 *>(a), *right = static_cast<const u8 *>(b);
    for (u32 i = 0; i < g_keySize; ++i) {
        if (i != 1 && left[i] % g_modulo != right[i] % g_modulo) {
            return 0;
        }
    }
    return 1;
}

TEST(HashTableTest, TakesNodesAndKeysOfAnySize)
{
    for (const auto &[nodeSize, keySize] :
         {std::pair{1U, 1U}, {3U, 2U}, {8U, 8U}, {13U, 9U}, {100U, 70U}}) {
        for (u32 option : {0U, u32{HASH_ANY_KEY}}) {
            const u32 modulo = option == HASH_ANY_KEY ? 31 : 256;
            g_keySize = keySize;
            g_modulo = modulo;
            HASH_Handle table = HASH_CreateNew(
                PARTITION, nodeSize, 3, [](const void *) -> u32 { return 2; }, compareBytes,
                option);
            std::vector<u8> key(keySize); /* no longer, that a sanitizer sees who reads on */
            const auto setKey = [&, size = keySize](u32 number, u32 second) {
                for (u32 i = 0; i < size; ++i) {
                    key[i] = static_cast<u8>((i == 1 ? second : number + i) % modulo);
                }
            };
            void *nodes[31];
            for (u32 i = 0; i < 31; ++i) {
                setKey(i, 5);
                nodes[i] = HASH_NewData(table, 0);
                memset(nodes[i], 0x55, nodeSize);
                memcpy(nodes[i], key.data(), keySize);
                EXPECT_EQ(HASH_AddNode(table, nodes[i], nodes[i], 0), 0U);
            }
            for (u32 i = 0; i < 31; ++i) {
                setKey(i, 6);
                key[0] = static_cast<u8>(key[0] + modulo);
                EXPECT_EQ(HASH_FindElmtFromFirst(table, key.data()), nodes[i]);
                EXPECT_EQ(HASH_RemoveElmtByKey(table, key.data()), 0U);
                EXPECT_EQ(HASH_FindElmtFromFirst(table, key.data()), nullptr);
            }
            deleteAndExpectNothingLeft(table);
        }
    }
}

TEST(HashTableTest, RefusesBadArguments)
{
    g_buckets = 8;
    EXPECT_EQ(HASH_CreateNew(PARTITION, 0, 8, hashKey, compareKeys, 0), nullptr);
    EXPECT_EQ(HASH_CreateNew(PARTITION, 16, 0, hashKey, compareKeys, 0), nullptr);
    EXPECT_EQ(HASH_CreateNew(PARTITION, 16, 0xFFFFFFFF, hashKey, compareKeys, 0), nullptr);
    EXPECT_EQ(HASH_CreateNew(PARTITION, 16, 8, nullptr, compareKeys, 0), nullptr);
    EXPECT_EQ(HASH_CreateNew(PARTITION, 16, 8, hashKey, nullptr, 0), nullptr);
    EXPECT_EQ(HASH_CreateNew(PARTITION, 16, 8, hashKey, compareKeys, 2), nullptr);

    Key key = {1, 2, 3};
    HASH_Stat stat = {1, 1, 1};
    EXPECT_EQ(HASH_NewData(nullptr, 0), nullptr);
    HASH_FreeData(nullptr, &key);
    EXPECT_EQ(HASH_AddNode(nullptr, &key, &key, 0), 1U);
    EXPECT_EQ(HASH_FindElmtFromFirst(nullptr, &key), nullptr);
    EXPECT_EQ(HASH_RemoveElmtByKey(nullptr, &key), 1U);
    EXPECT_EQ(HASH_GetFirstNode(nullptr), nullptr);
    EXPECT_EQ(HASH_GetNextNode(nullptr), nullptr);
    HASH_DeleteHash(nullptr);
    HASH_GetStat(nullptr, &stat);
    EXPECT_EQ(stat.nodes + stat.buffers + stat.bytes, 0U);

    HASH_Handle table = create(8);
    Node *node = add(table, 1, 2);
    Node *buffer = newNode(table, 5, 5);
    EXPECT_EQ(HASH_FindElmtFromFirst(table, nullptr), nullptr);
    EXPECT_EQ(HASH_RemoveElmtByKey(table, nullptr), 1U);
    EXPECT_EQ(HASH_AddNode(table, nullptr, buffer, 0), 1U);
    /* Not buffers: in the table already, given back. */
    void *const others[] = {nullptr, node, buffer};
    HASH_FreeData(table, buffer);
    for (void *other : others) {
        EXPECT_EQ(HASH_AddNode(table, &key, other, 0), 1U);
        HASH_FreeData(table, other);
    }
    EXPECT_EQ(HASH_FindElmtFromFirst(table, &node->key), node);
    EXPECT_NE(newNode(table, 6, 6), newNode(table, 7, 7));
    deleteAndExpectNothingLeft(table);

    table = HASH_CreateNew(PARTITION, sizeof(Node), 8, hashBeyond, compareKeys, 0);
    node = newNode(table, 1, 1);
    EXPECT_EQ(HASH_AddNode(table, node, node, 0), 1U);
    EXPECT_EQ(HASH_FindElmtFromFirst(table, node), nullptr);
    EXPECT_EQ(HASH_RemoveElmtByKey(table, node), 1U);
    deleteAndExpectNothingLeft(table);
}

} // namespace
