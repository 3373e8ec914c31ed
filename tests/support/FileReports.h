// The reports of file transfers, collected: reports.take is the callback, the object its context.
//
// Threads: any.
#ifndef KYP_TESTS_SUPPORT_FILEREPORTS_H
#define KYP_TESTS_SUPPORT_FILEREPORTS_H

#include <functional>
#include <mutex>
#include <ostream>
#include <vector>

#include "kypcomm/KypFileProgress.h"
#include "support/Eventually.h"

struct FileReport {
    int transferId;
    float progress;
    int error;
    int state;

    bool operator==(FileReport const& other) const {
        return transferId == other.transferId && progress == other.progress &&
               error == other.error && state == other.state;
    }
};

inline std::ostream& operator<<(std::ostream& out, FileReport const& report) {
    return out << "{id " << report.transferId << ", progress " << report.progress << ", error "
               << report.error << ", state " << report.state << "}";
}

class FileReports {
public:
    // `verdict` gives the callback's result; by default 0.
    explicit FileReports(std::function<int(FileReport const&)> verdict = nullptr)
        : m_verdict(std::move(verdict)) {}

    static int take(_KypDeviceId id, int transferId, float progress, int error, int state,
                    void* self) {
        return static_cast<FileReports*>(self)->add(id, {transferId, progress, error, state});
    }

    std::vector<FileReport> all() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_reports;
    }

    std::vector<_KypDeviceId> devices() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_devices;
    }

    size_t count() const { return all().size(); }

    bool wait_for(size_t number, std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
        return eventually([&] { return count() >= number; }, deadline);
    }

private:
    int add(_KypDeviceId const& id, FileReport const& report) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_reports.push_back(report);
            m_devices.push_back(id);
        }
        return m_verdict == nullptr ? 0 : m_verdict(report);
    }

    std::function<int(FileReport const&)> m_verdict;
    mutable std::mutex m_mutex;  // guards the two below
    std::vector<FileReport> m_reports;
    std::vector<_KypDeviceId> m_devices;
};

#endif
