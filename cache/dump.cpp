// SPDX-License-Identifier: Apache-2.0
// The picture of the whole cache that SIGUSR1 asks for: the watcher and the dump.
#include <cstdio>
#include <ostream>
#include <string>

#include "backend/base/log.h"
#include "cache/search_cache.h"
#include "vorn/secure_file.h"
#include "vorn/strings.h"

namespace {

constexpr const char* kRule = "--------------------------------------------------------------";
constexpr int kFileMode = 0400;

// The time's text with a newline of its own. A time that has no text fails the
// stream, as any null text does.
void writeTime(std::ostream& out, std::time_t time) {
    char text[64];
    out << ctime_r(&time, text);
}

void writeHeader(std::ostream& out, const char* table) {
    out << kRule << "\nDumping dirgate memory cache of " << table << '\n' << kRule << '\n';
}

void writeAttribute(std::ostream& out, const vexObject* object, const char* name) {
    out << name << ':';
    if (name == nullptr) return;
    vex::BlobList blobs;
    if (blobs.read(nullptr, object, name) == VEX_OK) {
        for (int i = 0; i < blobs.count(); ++i) {
            const vexBlob& blob = blobs.values()[i];
            const auto* bytes = reinterpret_cast<const char*>(blob.data);
            out << (i == 0 ? "" : ",");
            if (bytes != nullptr) out << vorn::printable({bytes, blob.length});
        }
    }
    out << '\n';
}

void writeAttributes(std::ostream& out, const vexObject* object) {
    unsigned cursor = 0;
    char* name = nullptr;
    vexCode code = vexGetFirstAttribute(nullptr, object, &cursor, &name);
    while (code == VEX_OK) {
        const vex::UniqueString owner(name);
        writeAttribute(out, object, name);
        code = vexGetNextAttribute(nullptr, object, &cursor, &name);
    }
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

std::atomic<bool> gDumpCacheRequested = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler writes it");

void SigHandleDumpCache(int /*signal*/) {
    gDumpCacheRequested = true;
}

void* SearchCacheManager::checkThread(void* argument) {
    auto* manager = static_cast<SearchCacheManager*>(argument);
    JPrintf("Thread starts to check signal...");
    for (;;) {
        if (gDumpCacheRequested) {
            manager->dumpCache();
            // Only now: signals that came meanwhile asked for this dump.
            gDumpCacheRequested = false;
        }
        manager->m_environment.sleep(0, 500, 0, 0);
    }
}

void SearchCacheManager::dumpCache() {
    JPrintf("Starting to dump memory cache setting, statistics and entire content...");
    const vorn::ReaderLock guard(m_lock);
    logSettings();
    JPrintf("%s", m_counts.line().c_str());
    JPrintf("Starting to dump entire cache content...");
    const std::string path = dumpFileName();
    try {
        writeDumpFile(path);
    } catch (const vorn::FileSecurityException&) {
        JPrintf("Can't open file %s", path.c_str());
        return;
    } catch (const std::exception& error) {
        JPrintf("Exception thrown in the duration of cache dump. Error:[%s]", error.what());
    }
    JPrintf("Dump entire cache content complete.");
}

void SearchCacheManager::logSettings() const {
    JPrintf(
        "memory cache %s, max lists: %u, max objects: %u, ttl: %u, negative ttl: %u, load factor: %f, "
        "log interval: %u",
        m_enabled ? "enabled" : "not enabled", static_cast<unsigned>(m_settings.maxLists),
        static_cast<unsigned>(m_settings.maxObjects), static_cast<unsigned>(m_settings.ttl),
        static_cast<unsigned>(m_settings.negTtl), static_cast<double>(m_settings.loadFactor),
        static_cast<unsigned>(m_logInterval.load()));
}

std::string SearchCacheManager::dumpFileName() const {
    const std::time_t now = m_environment.clock();
    std::tm local{};
    localtime_r(&now, &local);
    char text[64] = "";
    std::strftime(text, sizeof text, "%Y-%m-%d-%H-%M-%S", &local);
    return m_environment.dumpPrefix + text;
}

void SearchCacheManager::writeDumpFile(const std::string& path) const {
    int reason = 0;
    const std::unique_ptr<std::FILE, CloseFile> file(
        vorn::SecureFOpenForWriting(path.c_str(), kFileMode, 0, &reason));
    if (file == nullptr) throw vorn::FileSecurityException::refused(path.c_str(), reason);
    vorn::secure_ofstream out(file.get());
    dumpListCache(out);
    dumpObjCache(out);
}

void SearchCacheManager::dumpListCache(std::ostream& out) const {
    writeHeader(out, "list");
    std::size_t number = 0;
    m_listCache.forEach([&](const ListTable::Node& node) {
        out << "Key[" << ++number << "]: " << node.key << "\nCache expiry time: ";
        writeTime(out, node.value.expiryTime);
        out << "GuidList(s): ";
        const char* separator = "";
        for (const std::string& guid : *node.value.guidList) {
            out << separator << guid;
            separator = ",";
        }
        out << '\n' << kRule << '\n';
    });
    out << "\n\n\n";
}

void SearchCacheManager::dumpObjCache(std::ostream& out) const {
    writeHeader(out, "object");
    std::size_t number = 0;
    m_objCache.forEach([&](const ObjTable::Node& node) {
        out << "Key[" << ++number << "]: " << node.key << "\nADObject: " << node.key
            << "\nCache expiry time: ";
        writeTime(out, node.value.expiryTime);
        out << "Object data:\n";
        writeAttributes(out, node.value.object.get());
        out << kRule << '\n';
    });
}
