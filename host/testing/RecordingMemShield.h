#pragma once

#include "common/infra/Export.h"
#include "common/infra/MemShield.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// A memory tracker that keeps the calls it gets as texts, in order, with each block named by the
// type it was allocated for:
//
//     allocAndRegister 16 0 FixedFrequencySchedulingPolicy Caller.cpp:12
//     isMemshieldActive
//     verifyPtr FixedFrequencySchedulingPolicy Caller.cpp:34
//     freeAndUnregister FixedFrequencySchedulingPolicy Caller.cpp:34
//     freeAndCount FixedFrequencySchedulingPolicy
//
// A block that is not alive at exactly that address is named "unknown block" and not released. One
// thread at a time.
class ANALYTICS_TAG RecordingMemShield final : public MemShield {
public:
    bool active = true;
    std::vector<std::string> calls;

    // Blocks that were allocated and not released.
    std::size_t live() const { return m_blocks.size(); }

    bool isMemshieldActive() override {
        calls.emplace_back("isMemshieldActive");
        return active;
    }
    void* allocAndRegister(unsigned long size, unsigned long reserved, const char* typeName,
                           const char* file, unsigned int line) override {
        calls.push_back("allocAndRegister " + std::to_string(size) + " " +
                        std::to_string(reserved) + " " + typeName + at(file, line));
        m_blocks.push_back({typeName, std::make_unique<Unit[]>(size / sizeof(Unit) + 1)});
        return m_blocks.back().memory.get();
    }
    void verifyPtr(void* block, const char* file, unsigned int line) override {
        calls.push_back("verifyPtr " + nameOf(block) + at(file, line));
    }
    void freeAndUnregister(void* block, const char* file, unsigned int line) override {
        calls.push_back("freeAndUnregister " + nameOf(block) + at(file, line));
        release(block);
    }
    void freeAndCount(void* block) override {
        calls.push_back("freeAndCount " + nameOf(block));
        release(block);
    }

private:
    using Unit = std::max_align_t;
    struct Block {
        std::string typeName;
        std::unique_ptr<Unit[]> memory;
    };

    static std::string at(const char* file, unsigned int line) {
        return std::string(" ") + file + ":" + std::to_string(line);
    }
    std::vector<Block>::iterator find(void* address) {
        return std::find_if(m_blocks.begin(), m_blocks.end(),
                            [&](const Block& block) { return block.memory.get() == address; });
    }
    std::string nameOf(void* address) {
        const auto block = find(address);
        return block == m_blocks.end() ? "unknown block" : block->typeName;
    }
    void release(void* address) {
        const auto block = find(address);
        if (block != m_blocks.end()) {
            m_blocks.erase(block);
        }
    }

    std::vector<Block> m_blocks; // alive
};
