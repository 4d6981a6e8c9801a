// SPDX-License-Identifier: Apache-2.0
// A hash table with chains, whose bucket counts and order are fixed rules.
//
//     CacheTable<int> table;
//     table.insert("ann", 1);
//     CacheTable<int>::Node* node = table.find("ann");   // null when absent
//     CacheTable<int>::Trash removed;
//     table.evict(&removed);                             // frees at removed's end of life
//
// A key's bucket is its vorn::murhash modulo the bucket count, a prime of
// primeBuckets. A new entry goes to the head of its bucket's chain, so a chain
// runs from its newest entry to its oldest. The table grows on its own only when
// an insertion would exceed the maximum load factor.
//
// A chain has an end: an entry that would be one too many for its bucket is not taken.
// So nobody who chooses keys makes each look at his bucket a long walk.
//
// The table knows the bytes that it takes of the heap: its buckets and nodes and their
// keys by itself, what a value has elsewhere as the caller tells it.
//
// An entry is one node that stays where it is until it is removed. What is
// removed goes to a Trash, so that the owner chooses when the values are
// destroyed: after a lock has been released, say. Not safe for several threads.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cache/heap.h"
#include "cache/prime_buckets.h"
#include "vorn/hash.h"

template <typename Value>
class CacheTable {
  public:
    struct Node {
        Node(std::string_view nodeKey, Value nodeValue, std::uint32_t nodeHash, std::uint64_t nodeSerial)
            : key(nodeKey), value(std::move(nodeValue)), hash(nodeHash), serial(nodeSerial) {}

        const std::string key;
        Value value;
        const std::uint32_t hash;
        std::uint32_t bytes = 0;     // the table's own: what the entry takes of the heap
        const std::uint64_t serial;  // counts the table's insertions from 1: never the same twice
        Node* next = nullptr;        // the table's own
    };

    // Nodes that left their table; frees them.
    class Trash {
      public:
        Trash() = default;
        ~Trash() { freeChain(m_head); }
        Trash(const Trash&) = delete;
        Trash& operator=(const Trash&) = delete;

      private:
        friend CacheTable;
        void add(Node* node) {
            node->next = m_head;
            m_head = node;
        }
        Node* m_head = nullptr;
    };

    // 11 buckets, maximum load factor 1.0.
    CacheTable() : m_buckets(primeBuckets(kInitialRequest)) {}
    ~CacheTable() { clear(); }
    CacheTable(const CacheTable&) = delete;
    CacheTable& operator=(const CacheTable&) = delete;

    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    std::size_t bucketCount() const { return m_buckets.size(); }
    float maxLoadFactor() const { return m_maxLoadFactor; }
    std::size_t maxChain() const {
        return std::max(kLeastMaxChain, static_cast<std::size_t>(std::min(8 * m_maxLoadFactor, 1e9F)));
    }

    // Bytes of the heap: of all, and of an entry with that key whose value has so many
    // elsewhere.
    std::size_t bytes() const { return m_bytes + bucketBytes(bucketCount()); }
    std::size_t bytesOfEntries() const { return m_bytes; }
    // A bucket is a pointer. NOLINTNEXTLINE(bugprone-sizeof-expression)
    static std::size_t bucketBytes(std::size_t count) { return heapBytes(count * sizeof(Node*)); }
    static std::size_t entryBytes(std::string_view key, std::size_t elsewhere) {
        const std::size_t keyBytes = key.size() <= std::string().capacity() ? 0 : heapBytes(key.size() + 1);
        return heapBytes(sizeof(Node)) + keyBytes + elsewhere;
    }

    // Says anew how many bytes an entry's value has elsewhere, which are less than 4 GiB.
    void setBytesElsewhere(Node* node, std::size_t elsewhere) {
        m_bytes -= node->bytes;
        node->bytes = static_cast<std::uint32_t>(entryBytes(node->key, elsewhere));
        m_bytes += node->bytes;
    }

    // More than 0, and raised to 0.001. Moves nothing: the next insertion or
    // request for buckets looks at it.
    void setMaxLoadFactor(float factor) { m_maxLoadFactor = std::max(factor, kLeastLoadFactor); }

    // Takes the prime for the request, which is raised to what the entries that
    // are there need. May have fewer buckets afterwards.
    void requestBuckets(std::size_t request) {
        if (!empty()) request = std::max(request, bucketsFor(m_size));
        const std::size_t count = primeBuckets(request);
        if (count != bucketCount()) rehash(count);
    }

    Node* find(std::string_view key) {
        const std::uint32_t hash = vorn::murhash{}(key);
        Node** link = linkTo(key, hash);
        return *link;
    }

    // The entry of this key, and whether it is new; the value of a key that is
    // there already is dropped. No entry when the key's chain takes no more.
    std::pair<Node*, bool> insert(std::string_view key, Value value, std::size_t elsewhere = 0) {
        const std::uint32_t hash = vorn::murhash{}(key);
        if (Node* present = *linkTo(key, hash)) return {present, false};
        auto node = std::make_unique<Node>(key, std::move(value), hash, m_serial + 1);
        if (exceedsLoad(m_size + 1)) requestBuckets(bucketsFor(m_size + 1));
        if (chainLength(hash) >= maxChain()) return {nullptr, false};
        ++m_serial;
        ++m_size;
        pushFront(node.get());
        setBytesElsewhere(node.get(), elsewhere);
        return {node.release(), true};
    }

    // Removes the entry of this key, if any.
    void erase(std::string_view key, Trash* trash) {
        Node** link = linkTo(key, vorn::murhash{}(key));
        if (*link != nullptr) unlink(link, trash);
    }

    // Removes the last entry, the oldest, of the first bucket with entries at or
    // after the sweep's place, and moves that place to the bucket behind it. An
    // empty table stays as it is. Looks at each bucket once at most.
    void evict(Trash* trash) {
        if (empty()) return;  // a full round ends where it began
        if (m_sweep >= bucketCount()) m_sweep = 0;
        while (m_buckets[m_sweep] == nullptr) m_sweep = following(m_sweep);
        unlink(lastLink(&m_buckets[m_sweep]), trash);
        m_sweep = following(m_sweep);
    }

    void clear() {
        for (Node*& head : m_buckets) freeChain(std::exchange(head, nullptr));
        m_size = m_bytes = 0;
    }

    // Bucket by bucket, each chain from its head. The table must not change
    // meanwhile.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (const Node* head : m_buckets) {
            for (const Node* node = head; node != nullptr; node = node->next) visit(*node);
        }
    }

  private:
    static constexpr std::size_t kInitialRequest = 10;
    static constexpr float kLeastLoadFactor = 0.001F;
    static constexpr std::size_t kLeastMaxChain = 64;

    static void freeChain(Node* node) {
        while (node != nullptr) delete std::exchange(node, node->next);
    }

    bool exceedsLoad(std::size_t size) const {
        return static_cast<double>(size) > double{m_maxLoadFactor} * static_cast<double>(bucketCount());
    }

    std::size_t bucketsFor(std::size_t size) const {
        return static_cast<std::size_t>(std::floor(static_cast<double>(size) / double{m_maxLoadFactor})) + 1;
    }

    std::size_t following(std::size_t bucket) const { return bucket + 1 == bucketCount() ? 0 : bucket + 1; }

    // The pointer that points, or would point, to the key's node.
    Node** linkTo(std::string_view key, std::uint32_t hash) {
        Node** link = &m_buckets[hash % bucketCount()];
        while (*link != nullptr && ((*link)->hash != hash || (*link)->key != key)) link = &(*link)->next;
        return link;
    }

    std::size_t chainLength(std::uint32_t hash) const {
        std::size_t length = 0;
        for (const Node* node = m_buckets[hash % bucketCount()]; node != nullptr; node = node->next) ++length;
        return length;
    }

    static Node** lastLink(Node** link) {
        while ((*link)->next != nullptr) link = &(*link)->next;
        return link;
    }

    void pushFront(Node* node) {
        Node*& head = m_buckets[node->hash % bucketCount()];
        node->next = head;
        head = node;
    }

    void unlink(Node** link, Trash* trash) {
        Node* node = *link;
        *link = node->next;
        --m_size;
        m_bytes -= node->bytes;
        trash->add(node);
    }

    // Chains run from new to old afterwards too, so the nodes are dealt out in the
    // order of their insertion. Changes nothing when memory runs out.
    void rehash(std::size_t count) {
        std::vector<Node*> buckets(count);
        std::vector<Node*> nodes;
        nodes.reserve(m_size);
        for (Node* head : m_buckets) {
            for (Node* node = head; node != nullptr; node = node->next) nodes.push_back(node);
        }
        std::sort(nodes.begin(), nodes.end(),
                  [](const Node* a, const Node* b) { return a->serial < b->serial; });
        m_buckets.swap(buckets);
        for (Node* node : nodes) pushFront(node);
    }

    std::vector<Node*> m_buckets;  // chain heads, owned; never empty
    std::size_t m_size = 0;
    std::size_t m_bytes = 0;  // of the nodes
    float m_maxLoadFactor = 1.0F;
    std::size_t m_sweep = 0;  // the bucket that the next eviction looks at first
    std::uint64_t m_serial = 0;
};
