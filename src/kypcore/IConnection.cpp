#include "kypcore/IConnection.h"

#include <algorithm>

IObserverConn::IObserverConn() = default;

IObserverConn::~IObserverConn() = default;

IConnection::IConnection() = default;

IConnection::~IConnection() {
    detachAll();
}

int IConnection::attach(IObserverConn* observer) {
    m_vecObserver.push_back(observer);
    return 0;
}

int IConnection::detach(IObserverConn* observer) {
    auto const found = std::find(m_vecObserver.begin(), m_vecObserver.end(), observer);
    if (found != m_vecObserver.end()) m_vecObserver.erase(found);
    return 0;
}

int IConnection::detachAll() {
    m_vecObserver.clear();
    return 0;
}

int IConnection::notify() {
    // By index and with the size read anew: an observer may attach or detach while it is told.
    for (size_t i = 0; i < m_vecObserver.size(); ++i) m_vecObserver[i]->conn_close(this);
    return 0;
}
