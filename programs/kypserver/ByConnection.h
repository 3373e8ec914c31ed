// One Value for each connection record that has been asked for, found without a lock.
//
// Owns:     the values. Records are reused and never freed while the server runs, and so is what
//           is kept here: a record's next client finds the value of the one before.
// Threads:  find() from any. at() for one connection by one thread at a time: its loop's.
// Lifetime: outlives the loops and the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_BYCONNECTION_H
#define KYP_PROGRAMS_KYPSERVER_BYCONNECTION_H

#include <array>
#include <atomic>
#include <cstdint>

class IConnection;

namespace kypserver {

template <typename Value>
class CByConnection {
public:
    CByConnection() {
        for (auto& head : m_buckets) head.store(nullptr, std::memory_order_relaxed);
    }
    ~CByConnection() {
        for (auto& head : m_buckets) {
            Node* node = head.load(std::memory_order_relaxed);
            while (node != nullptr) {
                Node* const next = node->next;
                delete node;
                node = next;
            }
        }
    }
    CByConnection(CByConnection const&) = delete;
    CByConnection& operator=(CByConnection const&) = delete;

    // Null when nobody has asked at() for it.
    Value* find(IConnection* conn) const {
        Node* node = bucket(conn).load(std::memory_order_acquire);
        while (node != nullptr && node->conn != conn) node = node->next;
        return node != nullptr ? &node->value : nullptr;
    }

    // Made where it is missing.
    Value& at(IConnection* conn) {
        if (Value* const known = find(conn)) return *known;

        auto* const made = new Node(conn);
        std::atomic<Node*>& head = bucket(conn);
        made->next = head.load(std::memory_order_relaxed);
        while (!head.compare_exchange_weak(made->next, made, std::memory_order_release,
                                           std::memory_order_relaxed)) {
        }
        return made->value;
    }

    // Calls visit(value) for each, those that come meanwhile perhaps not.
    template <typename Visit>
    void for_each(Visit visit) const {
        for (auto const& head : m_buckets) {
            Node const* node = head.load(std::memory_order_acquire);
            for (; node != nullptr; node = node->next) visit(node->value);
        }
    }

private:
    struct Node {
        explicit Node(IConnection* owner) : conn(owner) {}

        IConnection* const conn;
        Value value;
        Node* next = nullptr;
    };

    std::atomic<Node*>& bucket(IConnection* conn) const {
        // Records lie some hundred bytes apart.
        return m_buckets[(reinterpret_cast<uintptr_t>(conn) >> 6) % m_buckets.size()];
    }

    mutable std::array<std::atomic<Node*>, 1024> m_buckets;  // chains that only grow
};

}  // namespace kypserver

#endif
