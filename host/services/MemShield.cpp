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
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
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
        static auto* const table = new BlockTable;
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
        if (pthread_atfork(onAll<&CheckedMutex::lock>, onAll<&CheckedMutex::unlock>,
                           onAll<&CheckedMutex::unlock>) != 0) {
            throw std::bad_alloc();
        }
    }

    template <void (CheckedMutex::*Operation)()>
    static void onAll() ANALYTICS_UNCHECKED_LOCKS {
        for (Stripe& stripe : instance().m_stripes) {
            (stripe.mutex.*Operation)();
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
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    BlockTable::instance().visit([&](const void* other, const BlockInfo& info) {
        const auto start = reinterpret_cast<std::uintptr_t>(other);
        if (address > start && address - start < info.size) {
            item << ", and this one points into the " << info.typeName << " at " << other
                 << ", allocated at " << info.file << ":" << info.line;
        }
    });
    item << std::endl;
}

} // namespace

bool MemShield::bMemshieldActive = true;

MemShield::MemShield() = default;

// The interface makes the switch a plain variable, which other threads may set meanwhile.
bool MemShield::isMemshieldActive() {
    return __atomic_load_n(&bMemshieldActive, __ATOMIC_RELAXED);
}

void* MemShield::allocAndRegister(unsigned long size, unsigned long /*reserved*/,
                                  const char* typeName, const char* file, unsigned int line) {
    std::unique_ptr<void, decltype(&std::free)> block(std::malloc(size), std::free);
    if (!block) {
        throw std::bad_alloc();
    }
    BlockTable::instance().add(block.get(), {size, typeName, file, line});
    return block.release();
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
    using Text = std::string_view; // equal texts may be different literals
    MemReport report;
    std::map<std::tuple<Text, Text, unsigned int>, MemReport::Place> places;
    report.allocations = BlockTable::instance().visit([&](const void*, const BlockInfo& info) {
        MemReport::Place& place = places[{info.typeName, info.file, info.line}];
        place = {info.typeName, info.file, info.line, place.blocks + 1, place.bytes + info.size};
        ++report.liveBlocks;
        report.liveBytes += info.size;
    });
    report.releases = report.allocations - report.liveBlocks;
    report.badReleases = badReleases.load(std::memory_order_relaxed);
    for (const auto& [key, place] : places) {
        report.places.push_back(place);
    }
    std::stable_sort(report.places.begin(), report.places.end(),
                     [](const auto& left, const auto& right) { return left.bytes > right.bytes; });
    return report;
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
