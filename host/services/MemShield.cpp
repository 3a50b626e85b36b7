#include "common/infra/MemShield.h"

#include "common/infra/Defs.h"
#include "common/infra/Log.h"
#include "host/services/BlockTable.h"
#include "host/services/MemLedger.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <new>
#include <ostream>
#include <string_view>
#include <tuple>

namespace {

BlockTable liveBlocks;
std::atomic<u64> badReleases{0};

// The block that this thread's last check reported: the release that follows the check is refused
// without a second report.
thread_local const void* reportedBlock = nullptr;

// The live block that the pointer points into, past its start.
struct Surroundings {
    const void* block = nullptr;
    BlockInfo info{};
};

Surroundings findAround(const void* pointer) {
    Surroundings found;
    const auto address = reinterpret_cast<std::uintptr_t>(pointer);
    liveBlocks.visit([&](std::uintptr_t block, const BlockInfo& info) {
        if (address > block && address - block < info.size) {
            found = {reinterpret_cast<const void*>(block), info};
        }
    });
    return found;
}

// A release without a place has a null `file`.
void reportBadRelease(const char* function, const void* block, const char* file,
                      unsigned int line) {
    badReleases.fetch_add(1, std::memory_order_relaxed);
    LogItem item(LogModuleCommon, ErrorLevel, function, 3);
    item << " Bad release of block=" << block;
    if (file != nullptr) {
        item << " at " << file << ":" << line;
    } else {
        item << " (place unknown: tracking is off)";
    }
    item << ", which is left alone: expected the start of a block that is allocated and not yet "
            "released";
    const Surroundings around = findAround(block);
    if (around.block != nullptr) {
        item << ", and this one points into the " << around.info.typeName << " at " << around.block
             << ", allocated at " << around.info.file << ":" << around.info.line;
    }
    item << std::endl;
}

// The totals of a report, and its places by their texts: equal ones may be different literals.
class ReportBuilder {
public:
    void add(const BlockInfo& info) {
        const auto key = std::make_tuple(std::string_view(info.typeName),
                                         std::string_view(info.file), info.line);
        MemReport::Place& place =
            m_places.try_emplace(key, MemReport::Place{info.typeName, info.file, info.line, 0, 0})
                .first->second;
        ++place.blocks;
        place.bytes += info.size;
        ++m_report.liveBlocks;
        m_report.liveBytes += info.size;
    }

    MemReport finish(u64 allocations) {
        m_report.allocations = allocations;
        m_report.releases = allocations - m_report.liveBlocks;
        m_report.badReleases = badReleases.load(std::memory_order_relaxed);
        for (const auto& [key, place] : m_places) {
            m_report.places.push_back(place);
        }
        std::stable_sort(m_report.places.begin(), m_report.places.end(),
                         [](const MemReport::Place& left, const MemReport::Place& right) {
                             return left.bytes > right.bytes;
                         });
        return m_report;
    }

private:
    using Key = std::tuple<std::string_view, std::string_view, unsigned int>;

    MemReport m_report;
    std::map<Key, MemReport::Place> m_places;
};

} // namespace

bool MemShield::bMemshieldActive = true;

MemShield::MemShield() = default;

// The switch is a plain variable by contract, and read at every deletion while it may be thrown.
bool MemShield::isMemshieldActive() {
    return __atomic_load_n(&bMemshieldActive, __ATOMIC_RELAXED);
}

void* MemShield::allocAndRegister(unsigned long size, unsigned long /*reserved*/,
                                  const char* typeName, const char* file, unsigned int line) {
    void* block = std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    try {
        liveBlocks.add(block, {size, typeName, file, line});
    } catch (...) {
        std::free(block);
        throw;
    }
    return block;
}

void MemShield::verifyPtr(void* block, const char* file, unsigned int line) {
    if (!liveBlocks.holds(block)) {
        reportBadRelease(__PRETTY_FUNCTION__, block, file, line);
        reportedBlock = block;
    }
}

void MemShield::freeAndUnregister(void* block, const char* file, unsigned int line) {
    if (liveBlocks.remove(block)) {
        std::free(block);
    } else if (block == reportedBlock) {
        reportedBlock = nullptr;
    } else {
        reportBadRelease(__PRETTY_FUNCTION__, block, file, line);
    }
}

void MemShield::freeAndCount(void* block) {
    if (liveBlocks.remove(block)) {
        std::free(block);
    } else {
        reportBadRelease(__PRETTY_FUNCTION__, block, nullptr, 0);
    }
}

void MemLedger::setTracking(bool on) {
    __atomic_store_n(&MemShield::bMemshieldActive, on, __ATOMIC_RELAXED);
}

MemReport MemLedger::report() {
    ReportBuilder builder;
    const u64 allocations =
        liveBlocks.visit([&](std::uintptr_t, const BlockInfo& info) { builder.add(info); });
    return builder.finish(allocations);
}

std::ostream& operator<<(std::ostream& out, const MemReport& report) {
    out << fmt::format("live: {} blocks, {} bytes; allocations: {}, releases: {}, bad releases: "
                       "{}\n",
                       report.liveBlocks, report.liveBytes, report.allocations, report.releases,
                       report.badReleases);
    for (const MemReport::Place& place : report.places) {
        out << fmt::format("{:>12} bytes in {:>8} blocks of {} from {}:{}\n", place.bytes,
                           place.blocks, place.typeName, place.file, place.line);
    }
    return out;
}
