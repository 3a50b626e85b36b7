#pragma once

#include "common/infra/Export.h"

#include <cstddef>
#include <memory>
#include <new>

// Memory for direct I/O, aligned to a page; zeroed.
class ANALYTICS_TAG AlignedBuffer {
public:
    static constexpr std::size_t alignment = 4096;

    explicit AlignedBuffer(std::size_t size)
        : m_size(size),
          m_memory(static_cast<std::byte*>(::operator new (size, std::align_val_t{alignment}))) {
        std::uninitialized_fill_n(m_memory.get(), size, std::byte{0});
    }

    std::byte* data() const { return m_memory.get(); }
    std::size_t size() const { return m_size; }

private:
    struct Delete {
        void operator()(std::byte* memory) const {
            ::operator delete (memory, std::align_val_t{alignment});
        }
    };

    std::size_t m_size;
    std::unique_ptr<std::byte, Delete> m_memory;
};
