// A first-in first-out ring that grows by doubling and never shrinks: once
// it has grown, adding and taking allocate nothing. Entries can go back to
// the front (a batch that was not sent). Not thread-safe: the owner locks.
#ifndef ORVEX_FANOUT_RING_H
#define ORVEX_FANOUT_RING_H

#include <cstddef>
#include <utility>
#include <vector>

namespace orvex {
namespace fanout {

template <typename T>
class Ring {
public:
    size_t size() const { return m_count; }
    bool empty() const { return m_count == 0; }
    // The oldest entry; the ring must not be empty.
    T& front() { return m_items[m_head]; }
    void pop_front() {
        m_head = (m_head + 1) % m_items.size();
        --m_count;
    }
    void push_back(T&& item) {
        if (m_count == m_items.size()) Grow();
        m_items[(m_head + m_count) % m_items.size()] = std::move(item);
        ++m_count;
    }
    void push_front(T&& item) {
        if (m_count == m_items.size()) Grow();
        m_head = (m_head + m_items.size() - 1) % m_items.size();
        m_items[m_head] = std::move(item);
        ++m_count;
    }
    void clear() { m_head = m_count = 0; }
    size_t capacity() const { return m_items.size(); }

private:
    void Grow() {
        std::vector<T> bigger(m_items.empty() ? 1024 : m_items.size() * 2);
        for (size_t i = 0; i < m_count; ++i) bigger[i] = std::move(m_items[(m_head + i) % m_items.size()]);
        m_items.swap(bigger);
        m_head = 0;
    }

    std::vector<T> m_items;
    size_t m_head = 0, m_count = 0;
};

}  // namespace fanout
}  // namespace orvex

#endif
