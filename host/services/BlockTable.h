#pragma once

#include "common/infra/Defs.h"
#include "host/services/ThreadLane.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

struct BlockInfo {
    unsigned long size;
    const char* typeName;
    const char* file;
    unsigned int line;
};

// The live blocks, in a hash table beside them: a pointer is only ever compared with what the table
// holds, so looking one up reads no memory that might not be a live block.
//
// A lock around each operation would cost more than the allocation that is being tracked, so the
// table takes none: a block is added by claiming a free slot of its bucket, and removed, by exactly
// one of those who try, by freeing the slot. In the first segment's buckets, the first slots belong
// each to the thread of one lane, which spares it the exchange that claims a slot. Blocks never
// move. When a block finds its bucket full in every segment, a segment four times the size of the
// last is added; segments are never given back, so the table's size follows the highest number of
// blocks that were ever alive at a time.
//
// Every operation may be called from any thread, concurrently. An object of static storage is
// usable before main() and after it.
class BlockTable {
public:
    // Throws std::bad_alloc.
    void add(const void* block, const BlockInfo& info) {
        const auto address = reinterpret_cast<std::uintptr_t>(block);
        Bucket& bucket = bucketOf(m_first.data(), 0, address);
        const unsigned int lane = ThreadLane::mine();
        if (lane < ownedSlots && bucket.blocks[lane].load(std::memory_order_acquire) == freeSlot) {
            bucket.blocks[lane].store(claimedSlot, std::memory_order_relaxed);
            fill(bucket, lane, address, info);
        } else if (!addTo(bucket, ownedSlots, address, info)) {
            addToGrown(address, info);
        }
    }

    bool holds(const void* block) {
        return find(reinterpret_cast<std::uintptr_t>(block)) != nullptr;
    }

    // Whether the block was there, and this call removed it.
    bool remove(const void* block) {
        auto address = reinterpret_cast<std::uintptr_t>(block);
        Slot* slot = find(address);
        return slot != nullptr &&
               slot->compare_exchange_strong(address, freeSlot, std::memory_order_acq_rel);
    }

    // Calls visitor(address, info) for each block, and returns how many were ever added.
    template <typename Visitor>
    u64 visit(Visitor visitor) const {
        u64 added = 0;
        const auto visitOne = [&](const Bucket& bucket) { added += visitBucket(bucket, visitor); };
        std::for_each(m_first.begin(), m_first.end(), visitOne);
        for (unsigned int segment = 1; segment <= m_grown.load(std::memory_order_acquire);
             ++segment) {
            std::for_each_n(m_segments[segment - 1], bucketCount(segment), visitOne);
        }
        return added;
    }

private:
    using Slot = std::atomic<std::uintptr_t>;

    static constexpr std::uintptr_t freeSlot = 0;
    static constexpr std::uintptr_t claimedSlot = 1; // no block: blocks are aligned
    static constexpr std::size_t slotsPerBucket = 8; // so that a search reads one cache line
    static constexpr unsigned int ownedSlots = 4;    // of a bucket in the first segment
    static constexpr unsigned int firstSegmentBits = 10;
    static constexpr unsigned int maxGrown = 24; // more than an address space holds

    // Written by whoever claimed the slot; read at any time by a visitor, hence atomic.
    struct Record {
        std::atomic<u64> version{0}; // blocks that were ever added in this slot
        std::atomic<unsigned long> size{0};
        std::atomic<const char*> typeName{nullptr};
        std::atomic<const char*> file{nullptr};
        std::atomic<unsigned int> line{0};
    };

    struct alignas(64) Bucket {
        std::array<Slot, slotsPerBucket> blocks{};
        std::array<Record, slotsPerBucket> records{};
    };

    static constexpr unsigned int bucketBits(unsigned int segment) {
        return firstSegmentBits + 2 * segment;
    }
    static std::size_t bucketCount(unsigned int segment) {
        return std::size_t{1} << bucketBits(segment);
    }

    static Bucket& bucketOf(Bucket* buckets, unsigned int segment, std::uintptr_t address) {
        return buckets[address * 0x9E3779B97F4A7C15U >> (64 - bucketBits(segment))];
    }

    Slot* find(std::uintptr_t address) {
        if (address <= claimedSlot) {
            return nullptr;
        }
        Slot* slot = findIn(bucketOf(m_first.data(), 0, address), address);
        return slot != nullptr ? slot : findInGrown(address);
    }

    // The common case, a block of the first segment, stays small without these two.
    __attribute__((noinline)) Slot* findInGrown(std::uintptr_t address) {
        Slot* slot = nullptr;
        for (unsigned int segment = 1;
             slot == nullptr && segment <= m_grown.load(std::memory_order_acquire); ++segment) {
            slot = findIn(bucketOf(m_segments[segment - 1], segment, address), address);
        }
        return slot;
    }

    static Slot* findIn(Bucket& bucket, std::uintptr_t address) {
        for (Slot& slot : bucket.blocks) {
            if (slot.load(std::memory_order_relaxed) == address) {
                return &slot;
            }
        }
        return nullptr;
    }

    __attribute__((noinline)) void addToGrown(std::uintptr_t address, const BlockInfo& info) {
        for (unsigned int segment = 1;; ++segment) {
            if (segment > m_grown.load(std::memory_order_acquire)) {
                grow(segment);
            }
            if (addTo(bucketOf(m_segments[segment - 1], segment, address), 0, address, info)) {
                return;
            }
        }
    }

    // Claims one of the slots from `begin` on.
    static bool addTo(Bucket& bucket, std::size_t begin, std::uintptr_t address,
                      const BlockInfo& info) {
        for (std::size_t i = begin; i < slotsPerBucket; ++i) {
            std::uintptr_t expected = freeSlot;
            if (bucket.blocks[i].load(std::memory_order_relaxed) == freeSlot &&
                bucket.blocks[i].compare_exchange_strong(expected, claimedSlot,
                                                         std::memory_order_acquire)) {
                fill(bucket, i, address, info);
                return true;
            }
        }
        return false;
    }

    // Fills a claimed slot. The version comes before the fields, and all are written with release,
    // so that a visitor that reads one new field also reads the new version.
    static void fill(Bucket& bucket, std::size_t slot, std::uintptr_t address,
                     const BlockInfo& info) {
        Record& record = bucket.records[slot];
        record.version.store(record.version.load(std::memory_order_relaxed) + 1,
                             std::memory_order_release);
        record.size.store(info.size, std::memory_order_release);
        record.typeName.store(info.typeName, std::memory_order_release);
        record.file.store(info.file, std::memory_order_release);
        record.line.store(info.line, std::memory_order_release);
        bucket.blocks[slot].store(address, std::memory_order_release);
    }

    static BlockInfo read(const Record& record) {
        return {record.size.load(std::memory_order_acquire),
                record.typeName.load(std::memory_order_acquire),
                record.file.load(std::memory_order_acquire),
                record.line.load(std::memory_order_acquire)};
    }

    template <typename Visitor>
    static u64 visitBucket(const Bucket& bucket, Visitor& visitor) {
        u64 added = 0;
        for (std::size_t i = 0; i < slotsPerBucket; ++i) {
            added += visitSlot(bucket.blocks[i], bucket.records[i], visitor);
        }
        return added;
    }

    // Reads until neither block nor version changes meanwhile: then the fields are that block's.
    template <typename Visitor>
    static u64 visitSlot(const Slot& block, const Record& record, Visitor& visitor) {
        for (;;) {
            const u64 version = record.version.load(std::memory_order_acquire);
            const std::uintptr_t address = block.load(std::memory_order_acquire);
            const BlockInfo info = address > claimedSlot ? read(record) : BlockInfo{};
            if (record.version.load(std::memory_order_acquire) != version ||
                block.load(std::memory_order_relaxed) != address || address == claimedSlot) {
                std::this_thread::yield();
                continue;
            }
            if (address != freeSlot) {
                visitor(address, info);
            }
            return version;
        }
    }

    // Adds the segment of this number, unless somebody else did.
    void grow(unsigned int segment) {
        std::lock_guard<std::mutex> lock(m_growth);
        if (m_grown.load(std::memory_order_relaxed) < segment) {
            m_segments[segment - 1] = new Bucket[bucketCount(segment)];
            m_grown.store(segment, std::memory_order_release);
        }
    }

    std::array<Bucket, 1U << firstSegmentBits> m_first{};
    std::array<Bucket*, maxGrown> m_segments{};
    std::atomic<unsigned int> m_grown{0};
    std::mutex m_growth;
};
