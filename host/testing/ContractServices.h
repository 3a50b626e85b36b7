#pragma once

#include "host/testing/ContractTimer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace analytics_contract {

// Releases a block as the library does.
inline void release(MemShield& shield, void* block) {
    if (shield.isMemshieldActive()) {
        shield.verifyPtr(block, "ContractServices.h", 1);
        shield.freeAndUnregister(block, "ContractServices.h", 1);
    } else {
        shield.freeAndCount(block);
    }
}

inline void* allocate(MemShield& shield, std::size_t size) {
    return shield.allocAndRegister(size, 0, "ContractBlock", "ContractServices.h", 1);
}

// Sets the switch of the memory tracker back at the end of a check.
class TrackingKept {
public:
    explicit TrackingKept(ContractHost& host)
        : m_host(host), m_before(host.memShield().isMemshieldActive()) {}
    ~TrackingKept() { m_host.setTracking(m_before); }
    TrackingKept(const TrackingKept&) = delete;
    TrackingKept& operator=(const TrackingKept&) = delete;

private:
    ContractHost& m_host;
    const bool m_before;
};

// Required.

inline void blocksHoldWhatIsWritten(ContractHost& host) {
    const std::string promise = "MemShield::allocAndRegister() gives a block of the size, aligned "
                                "for every type, that nobody else has; never null";
    MemShield& shield = host.memShield();
    constexpr std::array<std::size_t, 6> sizes{1, 24, 24, 472, 4'096, 100'000};
    std::vector<unsigned char*> blocks;
    for (const std::size_t size : sizes) {
        void* block = allocate(shield, size);
        if (block == nullptr) {
            reportBroken(promise, std::to_string(size) + " bytes were answered with null");
            return;
        }
        if (reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t) != 0) {
            reportBroken(promise, "a block of " + std::to_string(size) + " bytes is not aligned");
            return;
        }
        blocks.push_back(static_cast<unsigned char*>(block));
        std::memset(block, static_cast<int>(blocks.size()), size);
    }
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        const auto isOurs = [&](unsigned char byte) { return byte == i + 1; };
        if (!std::all_of(blocks[i], blocks[i] + sizes[i], isOurs)) {
            reportBroken(promise, "a block of " + std::to_string(sizes[i]) +
                                      " bytes was changed by writing into another one");
            return;
        }
    }
    for (unsigned char* const block : blocks) {
        release(shield, block);
    }
}

inline void eachBlockGoesBackEitherWay(ContractHost& host) {
    const std::string promise =
        "a block goes back to MemShield however the switch stood at its allocation: by verifyPtr() "
        "then freeAndUnregister() with tracking on, by freeAndCount() with tracking off";
    MemShield& shield = host.memShield();
    const TrackingKept kept(host);
    const auto setTracking = [&](bool on) {
        host.setTracking(on);
        if (shield.isMemshieldActive() != on) {
            reportBroken("MemShield::isMemshieldActive() answers the switch",
                         std::string("it did not when tracking was switched ") +
                             (on ? "on" : "off"));
        }
    };
    for (const bool before : {true, false}) {
        for (const bool after : {true, false}) {
            const std::optional<u64> liveBefore = host.liveBlocks();
            setTracking(before);
            void* block = allocate(shield, 64);
            setTracking(after);
            release(shield, block);
            if (host.liveBlocks() != liveBefore) {
                reportBroken(promise, std::string("a block that was allocated with tracking ") +
                                          (before ? "on" : "off") + " and released with tracking " +
                                          (after ? "on" : "off") + " still counts as alive");
            }
        }
    }
}

// The pieces that are not empty: those are skipped by the day list, so they may be dropped.
inline std::string piecesOf(ContractHost& host, const std::string& text) {
    std::string pieces;
    for (const std::string& piece : host.splitStr(text, ',')) {
        pieces += piece.empty() ? "" : "<" + piece + ">";
    }
    return pieces.empty() ? "nothing" : pieces;
}

inline void splitStrGivesThePiecesInOrder(ContractHost& host) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"mon", "<mon>"},          {"wed,mon,fri", "<wed><mon><fri>"},
        {"1,3,5", "<1><3><5>"},    {"mon,,tue", "<mon><tue>"},
        {"mon,mon", "<mon><mon>"}, {"mon;tue,wed", "<mon;tue><wed>"},
        {",sat,", "<sat>"},        {"", "nothing"}};
    for (const auto& [text, expected] : cases) {
        const std::string pieces = piecesOf(host, text);
        if (pieces != expected) {
            reportBroken(
                "StringUtils::splitStr() gives the pieces between the separators, in order",
                "\"" + text + "\" gave " + pieces + " and not " + expected);
        }
    }
}

inline void containsFindsAPartAnywhere(ContractHost& host) {
    struct Case {
        const char* text;
        const char* part;
        bool expected;
    };
    for (const Case& row :
         {Case{"mon", "mon", true}, Case{"monday", "mon", true}, Case{" mon", "mon", true},
          Case{"monsun", "sun", true}, Case{"a mon a", "mon", true}, Case{"mon", "tue", false},
          Case{"mo", "mon", false}, Case{"mo n", "mon", false}, Case{"7", "sat", false}}) {
        if (host.contains(row.text, row.part) != row.expected) {
            reportBroken(
                "StringUtils::contains() tells whether the second text occurs in the first",
                std::string("\"") + row.text + "\" and \"" + row.part + "\" gave " +
                    (row.expected ? "false" : "true"));
        }
    }
}

inline void anUnsetTunableIsItsDefault(ContractHost& host) {
    const std::string name = "t_ContractTunableThatNobodySets";
    for (const u32 fallback : {86'400U, 0U, std::numeric_limits<u32>::max()}) {
        const u32 value = host.uintVal(name, DefaultTweakValue<unsigned int>(fallback));
        if (value != fallback) {
            reportBroken("Tweaks::uintVal() answers the default of a tunable that is not set",
                         "the default " + std::to_string(fallback) + " became " +
                             std::to_string(value));
        }
    }
}

inline void aSetTunableIsItsValue(ContractHost& host) {
    const std::string name = "t_StorageAnalyticsIntervalSec";
    for (const u32 set : {3'600U, 0U, std::numeric_limits<u32>::max()}) {
        host.setTunable(name, set);
        const u32 value = host.uintVal(name, DefaultTweakValue<unsigned int>(86'400U));
        if (value != set) {
            reportBroken("Tweaks::uintVal() answers the value of the tunable of that name",
                         name + " was set to " + std::to_string(set) + " and answered as " +
                             std::to_string(value));
        }
    }
}

// The eight values with their names.
inline std::vector<std::pair<std::string, u32>> valuesOf(const StorageAnalyticsCounters& counters) {
    std::vector<std::pair<std::string, u32>> values{
        {"latencyThreshold", counters.latencyThreshold},
        {"avrHighStorageLatencyDuration", counters.avrHighStorageLatencyDuration},
        {"maxHighStorageLatencyDuration", counters.maxHighStorageLatencyDuration}};
    for (std::size_t i = 0; i < 5; ++i) {
        values.emplace_back("storageLatency[" + std::to_string(i) + "]",
                            counters.storageLatency[i]);
    }
    return values;
}

inline std::vector<std::pair<std::string, u32>> readOver(ContractHost& host, u32 before) {
    StorageAnalyticsCounters counters;
    counters.latencyThreshold = before;
    counters.avrHighStorageLatencyDuration = before;
    counters.maxHighStorageLatencyDuration = before;
    std::fill_n(counters.storageLatency, 5, before);
    host.readCounters(counters);
    return valuesOf(counters);
}

inline void aReadingWritesAllEightCounters(ContractHost& host) {
    constexpr u32 first = 0xA5A5A5A5;
    constexpr u32 second = 0x5A5A5A5A;
    const auto overFirst = readOver(host, first);
    const auto overSecond = readOver(host, second);
    for (std::size_t i = 0; i < overFirst.size(); ++i) {
        if (overFirst[i].second == first && overSecond[i].second == second) {
            reportBroken("AIO::mabeStorageLatencyAnalytics() writes all eight values of the record",
                         overFirst[i].first + " was left as it was");
        }
    }
}

// Advised.

inline void allocationsMayCoincide(ContractHost& host) {
    MemShield& shield = host.memShield();
    const std::optional<u64> liveBefore = host.liveBlocks();
    std::atomic<int> overwritten{0};
    const auto allocateInTurn = [&](int number) {
        for (int i = 0; i < 2'000; ++i) {
            auto* block = static_cast<int*>(allocate(shield, sizeof(int)));
            *block = number;
            if (i % 100 == 0) {
                std::this_thread::yield();
            }
            overwritten += *block == number ? 0 : 1;
            release(shield, block);
        }
    };
    std::thread other(allocateInTurn, 1);
    allocateInTurn(2);
    other.join();
    const std::string promise = "MemShield's operations may be called from several threads at once";
    if (overwritten > 0) {
        reportBroken(promise, "two threads were given the same block");
    }
    if (host.liveBlocks() != liveBefore) {
        reportBroken(promise, "blocks that were released still count as alive");
    }
}

inline void aReadingStartsAPeriod(ContractHost& host) {
    const std::string promise =
        "AIO::mabeStorageLatencyAnalytics() tells the I/Os since the reading before";
    const auto countedBy = [&] {
        StorageAnalyticsCounters counters{};
        host.readCounters(counters);
        u64 sum = 0;
        for (const u32 ios : counters.storageLatency) {
            sum += ios;
        }
        return sum;
    };
    countedBy();
    for (const u64 ios : {3U, 0U, 2U}) {
        for (u64 i = 0; i < ios; ++i) {
            host.countIo();
        }
        const u64 counted = countedBy();
        if (counted != ios) {
            reportBroken(promise, std::to_string(counted) + " I/Os were told where " +
                                      std::to_string(ios) + " had completed");
        }
    }
}

} // namespace analytics_contract
