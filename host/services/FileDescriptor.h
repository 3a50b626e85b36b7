#pragma once

#include "common/infra/Export.h"

#include <unistd.h>

#include <utility>

// Owns a file descriptor: closes it at the end. Empty, and then -1, if it was made of a negative
// number, as by an open() that failed, or its descriptor was moved away.
class ANALYTICS_TAG FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int value) : m_value(value) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_value(std::exchange(other.m_value, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_value, other.m_value);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (m_value >= 0) {
            ::close(m_value);
        }
    }

    int get() const { return m_value; }
    explicit operator bool() const { return m_value >= 0; }

private:
    int m_value = -1;
};
