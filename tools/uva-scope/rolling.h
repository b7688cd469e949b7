#ifndef UVA_SCOPE_ROLLING_H
#define UVA_SCOPE_ROLLING_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

namespace scope {

/// The latest of what goes on without end, numbered from 0 on.
template <typename Entry>
class Rolling {
public:
    explicit Rolling(std::size_t most) : m_most(most) {}

    void add(Entry entry) {
        m_entries.push_back(std::move(entry));
        if (m_entries.size() > m_most) {
            m_entries.pop_front();
            ++m_first;
        }
    }
    std::uint64_t first() const { return m_first; } ///< the number of the oldest that is kept
    std::uint64_t end() const { return m_first + m_entries.size(); }
    const std::deque<Entry>& entries() const { return m_entries; }

    /// Calls with each of these numbers and later that is kept.
    template <typename Use>
    void from(std::uint64_t number, Use use) const {
        for (auto i = std::max(number, m_first); i < end(); ++i)
            use(m_entries[static_cast<std::size_t>(i - m_first)]);
    }

private:
    const std::size_t m_most;
    std::uint64_t m_first = 0;
    std::deque<Entry> m_entries;
};

} // namespace scope

#endif
