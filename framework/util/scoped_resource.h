#ifndef UTIL_SCOPED_RESOURCE_H
#define UTIL_SCOPED_RESOURCE_H

#include <utility>

/// Owns a resource of the system and closes it at the end of a scope. The explicit constructor
/// adopts; there is no copy. Bound to one thread at a time.
///
/// `Close` is called with the resource, once, unless it is `Invalid`.
template <typename Resource, auto Close, auto Invalid>
class ScopedResource {
public:
    ScopedResource() = default;
    explicit ScopedResource(Resource resource) : m_resource(resource) {}
    ScopedResource(ScopedResource&& other) noexcept : m_resource(other.release()) {}
    ScopedResource& operator=(ScopedResource&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ScopedResource(const ScopedResource&) = delete;
    ScopedResource& operator=(const ScopedResource&) = delete;
    ~ScopedResource() { reset(); }

    /// The resource, still owned here; the invalid value if there is none.
    Resource get() const { return m_resource; }
    explicit operator bool() const { return m_resource != invalid(); }

    /// Gives the resource away unclosed.
    [[nodiscard]] Resource release() { return std::exchange(m_resource, invalid()); }

    /// Closes the resource, if any, and adopts the other.
    void reset(Resource resource = invalid()) {
        const Resource before = std::exchange(m_resource, resource);
        if (before != invalid())
            Close(before);
    }

private:
    static constexpr Resource invalid() { return static_cast<Resource>(Invalid); }

    Resource m_resource = invalid();
};

#endif
