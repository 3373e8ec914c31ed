#include "kypcomm/pbuf/pbufpool.h"

#include "utils/Log.h"

template class utility::Singleton<server_bufpool>;
template class utility::Singleton<client_bufpool>;

namespace {

constexpr int kMiB = 1024 * 1024;

struct SizeClass {
    int bound;  // largest size of the class
    int cls;
};

// Kept: a size of exactly 16384 or 32768 belongs to the next class up, so a buffer of that capacity
// comes back to the next class's list and get_one_buf() there can hand out less than was asked for.
constexpr SizeClass kLadder[] = {
    {128, 128},       {256, 256},       {512, 512},         {1024, 1024},   {2048, 2048},
    {4096, 4096},     {8192, 8192},     {16383, 16384},     {32767, 32768}, {65536, 65536},
    {131072, 131072}, {262144, 262144}, {1048576, 1048576},
};

// The classes around the two short ones: where a buffer can be on another list than its own.
constexpr int kFirstShiftedClass = 16384;
constexpr int kLastShiftedClass = 65536;

struct ListSize {
    int cls;
    int count;
};

constexpr ListSize kServerLists[] = {
    {128, 1024}, {256, 1024},    {512, 1024},   {1024, 512},   {2048, 512},   {4096, 300},
    {8192, 200}, {16384, 100},   {32768, 100},  {65536, 100},  {131072, 100}, {262144, 100},
    {kMiB, 15},  {2 * kMiB, 10}, {3 * kMiB, 8}, {4 * kMiB, 5}, {6 * kMiB, 5},
};

constexpr ListSize kClientLists[] = {
    {128, 256},  {256, 128},    {512, 128},    {1024, 128},   {2048, 128},   {4096, 128},
    {8192, 128}, {16384, 16},   {32768, 10},   {65536, 10},   {131072, 0},   {262144, 0},
    {kMiB, 0},   {2 * kMiB, 0}, {3 * kMiB, 0}, {4 * kMiB, 0}, {6 * kMiB, 0},
};

std::once_flag g_serverOnce;
std::once_flag g_clientOnce;

template <std::size_t N>
void make_lists(bufpool& pool, ListSize const (&lists)[N]) {
    for (ListSize const& list : lists) pool.make_buf_list(list.cls, list.count);
}

double total_kilobytes(bufpool& pool) {
    std::lock_guard<std::mutex> lock(pool.m_mutex);
    return static_cast<double>(pool.m_totalSize) / 1024;
}

// The head of a list, for its one owner from here on.
pbuf* unlink_head(pbuf*& head) {
    pbuf* const buf = head;
    head = buf->m_next;
    buf->m_next = nullptr;
    return buf;
}

int destroy_chain(pbuf* head) {
    int count = 0;
    while (head != nullptr) {
        delete unlink_head(head);
        ++count;
    }
    return count;
}

// `count` buffers of `size` bytes, null for a count below 1.
pbuf* make_chain(int size, int count) {
    pbuf* head = nullptr;
    for (int i = 0; i < count; ++i) {
        pbuf* const buf = new pbuf(size);
        buf->m_pooled = true;
        buf->m_next = head;
        head = buf;
    }
    return head;
}

// A free buffer of `size` bytes from the lists on which one of class `cls` can be, or null.
pbuf* find_shifted(bufpool& pool, int cls, int size) {
    std::lock_guard<std::mutex> lock(pool.m_mutex);
    for (; cls <= kLastShiftedClass; cls *= 2) {
        const auto list = pool.m_freeLists.find(cls);
        if (list == pool.m_freeLists.end() || list->second == nullptr) continue;
        if (list->second->m_capacity >= size) return unlink_head(list->second);
    }
    return nullptr;
}

}  // namespace

bufpool::bufpool() : m_memLimit(0), m_totalSize(0) {}

bufpool::~bufpool() {
    free_buf_list();
}

int bufpool::get_cap(int size) {
    for (SizeClass const& row : kLadder) {
        if (size <= row.bound) return row.cls;
    }
    if (size >= 16 * kMiB) return 0;
    return (size + kMiB - 1) / kMiB * kMiB;
}

pbuf* bufpool::get_one_buf(int size) {
    const int cap = get_cap(size);
    if (cap == 0) return nullptr;

    pbuf* buf = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pbuf*& head = m_freeLists[cap];
        if (head != nullptr) return unlink_head(head);

        buf = new pbuf(cap);
        m_totalSize += static_cast<uint64_t>(cap);
        buf->m_pooled = m_totalSize < m_memLimit;
    }
    // Outside the lock: whoever reads standard output slowly would stop every other thread here.
    KYP_LOG(LOG_LEVEL_INFO, "pool not enough memory,new buf:%d byte", cap);
    return buf;
}

int bufpool::put_one_free(pbuf* p) {
    if (p == nullptr) return 0;
    if (!p->m_pooled) {
        // Kept: m_totalSize does not fall, so past the limit every buffer that the lists lack is
        // allocated for one use.
        delete p;
        return 0;
    }

    p->clear_pbuf();
    // Kept: a buffer of 16 MiB has no class on its way back; it stays on list 0, out of reach.
    const int cap = get_cap(p->capacity());
    std::lock_guard<std::mutex> lock(m_mutex);
    pbuf*& head = m_freeLists[cap];
    p->m_next = head;
    head = p;
    return 0;
}

int bufpool::make_buf_list(int size, int count) {
    pbuf* const chain = make_chain(size, count);
    if (chain == nullptr && count != 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "new io_buf %d error", size);
        return -1;
    }

    std::lock_guard<std::mutex> lock(m_mutex);
    // Kept: an earlier list of the class is dropped, with its buffers neither freed nor reused.
    m_freeLists[size] = chain;
    // Kept: the product is 32 bits wide; a list of 2 GiB makes the total fall.
    const auto bytes = static_cast<int>(static_cast<unsigned>(size) * static_cast<unsigned>(count));
    m_totalSize += static_cast<uint64_t>(bytes);
    return 0;
}

int bufpool::free_buf_list() {
    std::map<int, pbuf*> lists;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        lists.swap(m_freeLists);
    }
    for (auto const& [cls, head] : lists) {
        const int count = destroy_chain(head);
        KYP_LOG(LOG_LEVEL_DEBUG, "free mem:%d byte size:%d", cls, count);
    }
    return 0;
}

int bufpool::set_mem_limit(unsigned long bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_memLimit = bytes;
    return 0;
}

server_bufpool::server_bufpool() = default;

server_bufpool::~server_bufpool() = default;

int server_bufpool::init_bufpool() {
    std::call_once(g_serverOnce, [this] {
        set_mem_limit(0x40000000);
        make_lists(*this, kServerLists);
        const double kilobytes = total_kilobytes(*this);
        KYP_LOG(LOG_LEVEL_NOTICE, "kyp server init memory pool total Size:%.2fkb,%.2fMb", kilobytes,
                kilobytes / 1024);
    });
    return 0;
}

int server_bufpool::get_cap(int size) {
    return bufpool::get_cap(size);
}

client_bufpool::client_bufpool() = default;

client_bufpool::~client_bufpool() = default;

int client_bufpool::init_bufpool() {
    std::call_once(g_clientOnce, [this] {
        set_mem_limit(0x10000000);
        make_lists(*this, kClientLists);
        const double kilobytes = total_kilobytes(*this);
        KYP_LOG(LOG_LEVEL_NOTICE, "kyp client init memory pool total Size:%.2fkb,%.2fMb", kilobytes,
                kilobytes / 1024);
    });
    return 0;
}

int client_bufpool::get_cap(int size) {
    return bufpool::get_cap(size);
}

pbuf* take_pbuf(bufpool& pool, int size) {
    int cls = pool.get_cap(size);
    if (cls >= kFirstShiftedClass && cls <= kLastShiftedClass) {
        if (pbuf* const buf = find_shifted(pool, cls, size)) return buf;
    }

    pbuf* buf = pool.get_one_buf(size);
    while (buf != nullptr && buf->capacity() < size) {
        pool.put_one_free(buf);
        buf = pool.get_one_buf(cls + 1);
        cls = pool.get_cap(cls + 1);
    }
    return buf;
}
