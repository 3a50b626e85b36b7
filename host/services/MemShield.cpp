#include "common/infra/MemShield.h"

#include "common/infra/Defs.h"
#include "common/infra/Lock.h"
#include "common/infra/Log.h"
#include "host/services/MemLedger.h"

#include <fmt/format.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <new>
#include <optional>
#include <ostream>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace {

struct BlockInfo {
    unsigned long size;
    const char* typeName;
    const char* file;
    unsigned int line;
};

// The live blocks by address. The table is apart from the blocks, so looking up a pointer never
// reads through it. Addresses are spread over stripes with a lock each, so threads rarely wait for
// each other.
class BlockTable {
public:
    // Usable before main() and after it, because it is made at the first use and never destroyed.
    static BlockTable& instance() {
        alignas(BlockTable) static std::array<std::byte, sizeof(BlockTable)> storage;
        static auto* const table = new (storage.data()) BlockTable;
        return *table;
    }

    // Throws std::bad_alloc. An address that is already there was freed without the tracker.
    void add(const void* block, const BlockInfo& info) {
        Stripe& stripe = stripeOf(block);
        const CheckedLock lock(stripe.mutex);
        stripe.blocks.insert_or_assign(block, info);
        ++stripe.added;
    }

    bool holds(const void* block) {
        Stripe& stripe = stripeOf(block);
        const CheckedLock lock(stripe.mutex);
        return stripe.blocks.count(block) > 0;
    }

    // Whether the block was there, and this call removed it.
    bool remove(const void* block) {
        Stripe& stripe = stripeOf(block);
        const CheckedLock lock(stripe.mutex);
        return stripe.blocks.erase(block) > 0;
    }

    // Calls visitor(block, info) for each block, and returns how many were ever added.
    template <typename Visitor>
    u64 visit(Visitor visitor) {
        u64 added = 0;
        for (Stripe& stripe : m_stripes) {
            const CheckedLock lock(stripe.mutex);
            for (const auto& [block, info] : stripe.blocks) {
                visitor(block, info);
            }
            added += stripe.added;
        }
        return added;
    }

private:
    static constexpr unsigned int stripeBits = 5;

    struct alignas(64) Stripe {
        CheckedMutex mutex;
        std::unordered_map<const void*, BlockInfo> blocks ANALYTICS_GUARDED_BY(mutex);
        u64 added ANALYTICS_GUARDED_BY(mutex) = 0; // blocks, ever
    };

    // fork() waits for every lock, so that the child finds each stripe whole and unlocked.
    BlockTable() {
        if (pthread_atfork([] { instance().lockAll(); }, [] { instance().unlockAll(); },
                           [] { instance().unlockAll(); }) != 0) {
            throw std::bad_alloc();
        }
    }

    void lockAll() ANALYTICS_UNCHECKED_LOCKS {
        for (Stripe& stripe : m_stripes) {
            stripe.mutex.lock();
        }
    }
    void unlockAll() ANALYTICS_UNCHECKED_LOCKS {
        for (Stripe& stripe : m_stripes) {
            stripe.mutex.unlock();
        }
    }

    Stripe& stripeOf(const void* block) {
        const auto address = reinterpret_cast<std::uintptr_t>(block);
        return m_stripes[address * 0x9E3779B97F4A7C15U >> (64 - stripeBits)];
    }

    std::array<Stripe, 1U << stripeBits> m_stripes;
};

std::atomic<u64> badReleases{0};

// The block that this thread's last check reported. The release after the check leaves the block
// alone and reports nothing, even if another thread has got a new block at that address meanwhile.
// The mark is per thread: the other thread may release its new block.
//
// One race remains. Two threads release a block at once, and both checks find it alive. If a third
// thread gets a new block at its address between the two releases, the second release frees that
// block. Only a check and a release in one call could detect this.
thread_local std::optional<const void*> reportedBlock;

// The live block that the pointer points into, past its start.
struct Surroundings {
    const void* block = nullptr;
    BlockInfo info{};
};

Surroundings findAround(const void* pointer) {
    Surroundings found;
    const auto address = reinterpret_cast<std::uintptr_t>(pointer);
    BlockTable::instance().visit([&](const void* block, const BlockInfo& info) {
        const auto start = reinterpret_cast<std::uintptr_t>(block);
        if (address > start && address - start < info.size) {
            found = {block, info};
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

// The interface makes the switch a plain variable, which other threads may set meanwhile.
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
        BlockTable::instance().add(block, {size, typeName, file, line});
    } catch (...) {
        std::free(block);
        throw;
    }
    return block;
}

void MemShield::verifyPtr(void* block, const char* file, unsigned int line) {
    reportedBlock.reset();
    if (!BlockTable::instance().holds(block)) {
        reportBadRelease(__PRETTY_FUNCTION__, block, file, line);
        reportedBlock = block;
    }
}

void MemShield::freeAndUnregister(void* block, const char* file, unsigned int line) {
    if (std::exchange(reportedBlock, std::nullopt) == block) {
        return;
    }
    if (BlockTable::instance().remove(block)) {
        std::free(block);
    } else {
        reportBadRelease(__PRETTY_FUNCTION__, block, file, line);
    }
}

void MemShield::freeAndCount(void* block) {
    if (BlockTable::instance().remove(block)) {
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
    const u64 allocations = BlockTable::instance().visit(
        [&](const void*, const BlockInfo& info) { builder.add(info); });
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
