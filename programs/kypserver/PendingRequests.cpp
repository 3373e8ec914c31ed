#include "kypserver/PendingRequests.h"

#include <algorithm>

namespace kypserver {

void CPendingRequests::add(PendingRequest const& request) {
    if (m_requests.size() == kMost) m_requests.erase(m_requests.begin());
    m_requests.push_back(request);
}

bool CPendingRequests::remove(uint32_t invokeId) {
    auto const found = std::find_if(
        m_requests.begin(), m_requests.end(),
        [invokeId](PendingRequest const& request) { return request.invokeId == invokeId; });
    if (found == m_requests.end()) return false;

    m_requests.erase(found);
    return true;
}

}  // namespace kypserver
