// A queue in one block that is used over and over: once it has been as long before, nothing is
// allocated for what comes and goes.
//
// Threads:  no lock: its owner has one.
#ifndef KYP_PROGRAMS_KYPSERVER_RING_H
#define KYP_PROGRAMS_KYPSERVER_RING_H

#include <cstddef>
#include <utility>
#include <vector>

namespace kypserver {

template <typename T>
class CRing {
public:
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

    // The element that has `index` others in front of it; there is one.
    T& operator[](size_t index) { return m_block[slot(index)]; }
    T const& operator[](size_t index) const { return m_block[slot(index)]; }
    T& front() { return (*this)[0]; }
    T const& front() const { return (*this)[0]; }
    T& back() { return (*this)[m_size - 1]; }

    void push_back(T element) {
        if (m_size == m_block.size()) grow();
        m_block[slot(m_size)] = std::move(element);
        ++m_size;
    }

    // What the element owns goes with it.
    void pop_front() {
        m_block[m_first] = T();
        m_first = slot(1);
        --m_size;
    }

    // Gives the block away, too.
    void clear() {
        m_block.clear();
        m_block.shrink_to_fit();
        m_first = 0;
        m_size = 0;
    }

private:
    static constexpr size_t kFirstSize = 8;

    size_t slot(size_t index) const { return (m_first + index) & (m_block.size() - 1); }

    void grow() {
        std::vector<T> larger(m_block.empty() ? kFirstSize : 2 * m_block.size());
        for (size_t i = 0; i < m_size; ++i) larger[i] = std::move((*this)[i]);
        m_block.swap(larger);
        m_first = 0;
    }

    std::vector<T> m_block;  // its size is a power of two, or 0
    size_t m_first = 0;
    size_t m_size = 0;
};

}  // namespace kypserver

#endif
