#pragma once
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace otherset
{

struct Picture
{
    unsigned Number, Width, Height;
    std::vector<std::uint8_t> Pixels; ///< red, green, blue, 255
};

/** \brief The one screen. Thread-safe. */
class Screen
{
  public:
    static Screen &Instance();

    void Show(const void *Plane, const std::uint8_t *Pixels, unsigned Width, unsigned Height);
    void Clear(const void *Plane);
    void SetVisible(bool Visible);

    /** \brief What is shown, or null. */
    std::shared_ptr<const Picture> Shown() const;

    /** \brief Waits until what is shown (null: nothing) will do, and tells its number. */
    unsigned Await(const std::function<bool(const Picture *)> &WillDo) const;

    /** \brief Has those who wait look again. */
    void Wake() const;

  private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::shared_ptr<const Picture> m_picture;
    const void *m_plane{};
    unsigned m_shown{};
    bool m_visible{true};
};

} // namespace otherset
