#include "screen.hpp"

#include <otherset/screen.h>

#define EXPORT __attribute__((visibility("default")))

namespace otherset
{

Screen &Screen::Instance()
{
    static Screen &TheScreen = *new Screen; // sinks may show to the process's end
    return TheScreen;
}

void Screen::Show(const void *Plane, const std::uint8_t *Pixels, unsigned Width, unsigned Height)
{
    auto Shown = std::make_shared<Picture>();
    Shown->Width = Width;
    Shown->Height = Height;
    Shown->Pixels.assign(Pixels, Pixels + std::size_t{4} * Width * Height);
    {
        const std::lock_guard Hold(m_mutex);
        Shown->Number = ++m_shown;
        m_picture = std::move(Shown);
        m_plane = Plane;
    }
    m_changed.notify_all();
}

void Screen::Clear(const void *Plane)
{
    const std::lock_guard Hold(m_mutex);
    if (m_plane == Plane)
        m_picture.reset();
}

void Screen::SetVisible(bool Visible)
{
    const std::lock_guard Hold(m_mutex);
    m_visible = Visible;
}

std::shared_ptr<const Picture> Screen::Shown() const
{
    const std::lock_guard Hold(m_mutex);
    return m_visible ? m_picture : nullptr;
}

unsigned Screen::Await(const std::function<bool(const Picture *)> &WillDo) const
{
    std::unique_lock Hold(m_mutex);
    m_changed.wait(Hold, [&] { return WillDo(m_visible ? m_picture.get() : nullptr); });
    return m_picture ? m_picture->Number : 0;
}

void Screen::Wake() const
{
    {
        const std::lock_guard Hold(m_mutex);
    }
    m_changed.notify_all();
}

} // namespace otherset

EXPORT void OtherSet_Show(const void *Plane, const uint8_t *Pixels, unsigned Width, unsigned Height)
{
    otherset::Screen::Instance().Show(Plane, Pixels, Width, Height);
}

EXPORT void OtherSet_Clear(const void *Plane)
{
    otherset::Screen::Instance().Clear(Plane);
}
