#ifndef SYS_VARS_H
#define SYS_VARS_H

#include "util/mutex.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>

/// Named values that debug scripts and the framework share, such as "ZANTALOG_PATH". Thread-safe.
template <typename Value>
class CSysVarMap {
public:
    /// Creates the variable or gives it a new value.
    void Set(const std::string& name, const Value& value) EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        m_values[name] = value;
    }

    /// The variable's value, nothing if there is no such variable.
    std::optional<Value> Get(const std::string& name) const EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        const auto found = m_values.find(name);
        if (found == m_values.end())
            return std::nullopt;
        return found->second;
    }

    /// The same for one that is there, or while there are fewer than `most`. Whether it was done.
    bool SetWithin(size_t most, const std::string& name, const Value& value) EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        if (m_values.size() >= most && m_values.find(name) == m_values.end())
            return false;
        m_values[name] = value;
        return true;
    }

    /// There is none of that name any more.
    void Remove(const std::string& name) EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        m_values.erase(name);
    }

private:
    mutable Mutex m_mutex;
    std::map<std::string, Value> m_values GUARDED_BY(m_mutex);
};

/// The variables of the process. Never destroyed.
extern CSysVarMap<std::string>& sysVarStringMap;
extern CSysVarMap<int>& sysVarIntMap;

#endif
