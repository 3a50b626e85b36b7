#pragma once

#include "common/infra/Export.h"
#include "host/io/IoEngine.h"

#include <cstddef>

// Requests in their order, linked through themselves: queueing allocates nothing. Not synchronised.
class ANALYTICS_TAG IoQueue {
public:
    bool empty() const { return m_head == nullptr; }
    std::size_t size() const { return m_size; }
    IoRequest& front() const { return *m_head; }

    void push(IoRequest& request) {
        request.m_previous = empty() ? nullptr : m_tail;
        request.m_next = nullptr;
        (empty() ? m_head : m_tail->m_next) = &request;
        m_tail = &request;
        ++m_size;
    }

    void remove(IoRequest& request) {
        (&request == m_head ? m_head : request.m_previous->m_next) = request.m_next;
        (&request == m_tail ? m_tail : request.m_next->m_previous) = request.m_previous;
        --m_size;
    }

    IoRequest& pop() {
        IoRequest& first = front();
        remove(first);
        return first;
    }

    void append(IoQueue& other) {
        if (other.empty()) {
            return;
        }
        other.m_head->m_previous = empty() ? nullptr : m_tail;
        (empty() ? m_head : m_tail->m_next) = other.m_head;
        m_tail = other.m_tail;
        m_size += other.m_size;
        other = {};
    }

private:
    IoRequest* m_head = nullptr;
    IoRequest* m_tail = nullptr;
    std::size_t m_size = 0;
};
