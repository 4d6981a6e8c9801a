// SPDX-License-Identifier: Apache-2.0
// What the search cache costs a search: hits and stores, a small and a large
// table, one and two threads. Hits walk either 1,000 keys or all of the table's:
// with 1,000 keys a hit costs about the same in either table; with all of them the
// large table also pays for memory that the processor's caches cannot hold. The
// objects are libvex's own, so a clone costs what it costs in slapd.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "cache/search_cache.h"
#include "vex/object.h"

namespace {

// The size of the objects' buffers.
std::size_t bufferBytes = 0;

// An object with the attributes that every object has.
vex::UniqueObject makeObject() {
    flatbuffers::FlatBufferBuilder builder;
    std::vector<flatbuffers::Offset<vex::wire::Attribute>> attributes;
    for (const char* name : {AD_OBJECT_DN_TEXT, AD_OBJECT_GUID_TEXT, VORN_OBJECT_CATEGORY}) {
        const auto value = builder.CreateString("CN=ann,DC=example,DC=com");
        const auto values = builder.CreateVector(std::vector{value});
        const auto text = builder.CreateString(name);
        attributes.push_back(vex::wire::CreateAttribute(builder, text, values));
    }
    const auto list = builder.CreateVector(attributes);
    builder.Finish(vex::wire::CreateObject(builder, list));
    bufferBytes = builder.GetSize();
    const auto bytes = vex::ObjectRef::copyOf({builder.GetBufferPointer(), builder.GetSize()});
    return vex::UniqueObject(new vexObject{bytes});
}

const std::vector<std::string>& guids() {
    static const std::vector<std::string> list = [] {
        std::vector<std::string> made;
        std::mt19937 random(1);
        for (int i = 0; i < 600'000; ++i) {
            char text[40];
            std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%08x%04x", static_cast<unsigned>(random()),
                          static_cast<unsigned>(random() & 0xffff), static_cast<unsigned>(random() & 0xffff),
                          static_cast<unsigned>(random() & 0xffff), static_cast<unsigned>(random()),
                          static_cast<unsigned>(random() & 0xffff));
            made.emplace_back(text);
        }
        return made;
    }();
    return list;
}

// A full cache of that many objects and lists, made once.
SearchCacheManager& filled(std::size_t entries) {
    static std::mutex mutex;
    static std::map<std::size_t, std::unique_ptr<SearchCacheManager>> caches;
    const std::lock_guard guard(mutex);
    auto& cache = caches[entries];
    if (cache != nullptr) return *cache;
    vorn::Thread::SetThreadsActive(true);
    cache = std::make_unique<SearchCacheManager>();
    cache->init(true, entries, entries, 1'000'000, 300, 0, 1.3F);
    for (std::size_t i = 0; i < entries; ++i) {
        const std::string& guid = guids()[i];
        cache->putObj(guid.c_str(), makeObject().get());
        cache->putList(guid, std::make_shared<GuidList>(GuidList{guid}));
    }
    return *cache;
}

// Each thread walks the keys in an order of its own that memory cannot foresee.
std::size_t nextKey(std::size_t key, std::size_t keys) {
    return (key + 7'919) % keys;
}

void listHit(benchmark::State& state) {
    const auto entries = static_cast<std::size_t>(state.range(0));
    const auto keys = static_cast<std::size_t>(state.range(1));
    SearchCacheManager& cache = filled(entries);
    auto key = static_cast<std::size_t>(state.thread_index()) * keys / 2;
    for ([[maybe_unused]] auto _ : state) {
        std::shared_ptr<GuidList> list;
        if (cache.getList(guids()[key], list) != SearchCacheManager::kHit) state.SkipWithError("no hit");
        key = nextKey(key, keys);
    }
}

void objHit(benchmark::State& state) {
    const auto entries = static_cast<std::size_t>(state.range(0));
    const auto keys = static_cast<std::size_t>(state.range(1));
    SearchCacheManager& cache = filled(entries);
    auto key = static_cast<std::size_t>(state.thread_index()) * keys / 2;
    for ([[maybe_unused]] auto _ : state) {
        CachedObject cached;
        if (cache.getObj(guids()[key], &cached) != SearchCacheManager::kHit) state.SkipWithError("no hit");
        key = nextKey(key, keys);
    }
}

// Walks twice as many GUIDs as the table holds, so most stores find theirs absent
// and every one evicts.
void objStoreWithEviction(benchmark::State& state) {
    const auto entries = static_cast<std::size_t>(state.range(0));
    SearchCacheManager& cache = filled(entries);
    const vex::UniqueObject object = makeObject();
    auto key = static_cast<std::size_t>(state.thread_index()) * entries;
    for ([[maybe_unused]] auto _ : state) {
        cache.putObj(guids()[key].c_str(), object.get());
        key = nextKey(key, 2 * entries);
    }
}

// What a cached object takes of the heap, beside the size of its own buffer. The
// buckets are there before and do not count: 8 bytes for each object that fits, by
// the load factor.
void objMemory(benchmark::State& state) {
    const auto entries = static_cast<std::size_t>(state.range(0));
    vorn::Thread::SetThreadsActive(true);
    guids();
    for ([[maybe_unused]] auto _ : state) {
        SearchCacheManager cache;
        cache.init(true, 1, entries, 1'000'000, 300, 0, 1.3F);
        const std::size_t before = mallinfo2().uordblks;
        for (std::size_t i = 0; i < entries; ++i) cache.putObj(guids()[i].c_str(), makeObject().get());
        const std::size_t taken = mallinfo2().uordblks - before;
        state.counters["bytes_per_object"] = static_cast<double>(taken) / static_cast<double>(entries);
    }
    state.counters["buffer_bytes"] = static_cast<double>(bufferBytes);
}

void hits(benchmark::internal::Benchmark* benchmark) {
    benchmark->Args({3'000, 1'000})
        ->Args({300'000, 1'000})
        ->Args({3'000, 3'000})
        ->Args({300'000, 300'000})
        ->ArgNames({"entries", "keys"})
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime();
}

BENCHMARK(objMemory)->Arg(3'000)->Arg(300'000)->Iterations(1);
BENCHMARK(listHit)->Apply(hits);
BENCHMARK(objHit)->Apply(hits);
// Last: it changes what the caches hold.
BENCHMARK(objStoreWithEviction)->Arg(3'000)->Arg(300'000)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
