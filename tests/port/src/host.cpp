#include <otherset/host.hpp>

#include "screen.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <thread>

using otherset::Picture;
using otherset::Screen;

#pragma GCC visibility push(default)

double otherset::TimePoint::Timestamp()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

const char *const UVADRMKeySlotGetter::interfaceName = "otherset.key-slot-getter";
const char *const UVADRMFullSampleDecrypter::interfaceName = "otherset.full-sample-decrypter";

namespace
{

std::string TextOf(const char *Text)
{
    return Text ? Text : "";
}

struct KeySystems
{
    std::mutex Mutex;
    std::map<std::string, UVADRMBackend *> ByName;

    static KeySystems &Instance()
    {
        static KeySystems &All = *new KeySystems;
        return All;
    }
};

} // namespace

void UVA_OfferDRMBackend(const char *KeySystem, UVADRMBackend *Backend)
{
    auto &All = KeySystems::Instance();
    const std::lock_guard Hold(All.Mutex);
    if (Backend)
        All.ByName[TextOf(KeySystem)] = Backend;
    else
        All.ByName.erase(TextOf(KeySystem));
}

UVADRMBackend *UVA_FindDRMBackend(const char *KeySystem)
{
    auto &All = KeySystems::Instance();
    const std::lock_guard Hold(All.Mutex);
    const auto Found = All.ByName.find(TextOf(KeySystem));
    return Found == All.ByName.end() ? nullptr : Found->second;
}

UVABackend::AVComponent::AVComponent(int Type, const char *Encoding, const char *Language, const char *Label)
    : label(TextOf(Label)), language(TextOf(Language)), encoding(TextOf(Encoding)), type(Type)
{
}

UVABackend::AVComponent::~AVComponent()
{
    std::free(channel);
}

void UVABackend::Tell(UVAEvent *Event)
{
    if (m_uvaClient)
        m_uvaClient->deliverEvent(Event);
    else
        delete Event;
}

unsigned int UVABackend::getCapabilities()
{
    return 1 | 2; // capture, volume
}

std::string UVABackend::getTimelineDetails(const std::string &)
{
    return {};
}

int UVABackend::setWindowId(unsigned int)
{
    return Success;
}

int UVABackend::setLogicalScreenSize(int, int)
{
    return Success;
}

int UVABackend::responseFromGetCookiesEvent(const char *, unsigned int)
{
    return Failure; // nobody asks
}

int UVABackend::responseFromSetCookieEvent(bool, unsigned int)
{
    return Failure;
}

int UVABackend::eventCompleted(const UVAAsyncEvent *, bool)
{
    return Success;
}

int UVABackend::releaseResources(ResourceType)
{
    return Success;
}

int UVABackend::releaseResources()
{
    return releaseResources(AllResources);
}

int UVABackend::releaseBackendAsynchronously()
{
    const int Result = releaseResources(AllResources);
    Tell(new AsyncReleaseFinishedEvent);
    return Result;
}

/** \brief Tells a client of new pictures, on a thread of its own, one picture at a time. */
class UVAMediaBackend::Capture
{
  public:
    explicit Capture(UVAMediaBackend &Owner) : m_owner(Owner) {}
    ~Capture() { Stop(); }

    void Start(unsigned Width, unsigned Height)
    {
        Stop();
        SetSize(Width, Height);
        m_session = std::make_shared<Session>();
        m_thread = std::thread(&Capture::Work, this, m_session);
    }

    /** \brief Nothing more is told from now on, unless it is called from inside that. */
    void Stop()
    {
        SetSize(0, 0);
        if (!m_thread.joinable())
            return;
        m_session->Over = true;
        Screen::Instance().Wake();
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach(); // it touches nothing but its session when the client returns
        else
            m_thread.join();
    }

    void Continue()
    {
        if (!m_session)
            return;
        m_session->Told = false;
        Screen::Instance().Wake();
    }

    int Copy(unsigned char *Frame, unsigned Bytes) const
    {
        const auto Shown = Screen::Instance().Shown();
        if (!Shown)
            return NotAvailable;
        unsigned Width = Shown->Width, Height = Shown->Height;
        {
            const std::lock_guard Hold(m_mutex);
            if (m_width)
                Width = m_width, Height = m_height;
        }
        if (!Frame || Bytes != std::uint64_t{4} * Width * Height)
            return Failure;
        for (unsigned Y = 0; Y < Height; ++Y)
            for (unsigned X = 0; X < Width; ++X, Frame += 4)
                std::copy_n(&Shown->Pixels[4 * Nearest(*Shown, X, Width, Y, Height)], 4, Frame);
        return Success;
    }

  private:
    struct Session
    {
        std::atomic<bool> Over{}, Told{};
    };

    static std::size_t Nearest(const Picture &Shown, unsigned X, unsigned Width, unsigned Y, unsigned Height)
    {
        const std::size_t Column = (std::size_t{2} * X + 1) * Shown.Width / (std::size_t{2} * Width);
        const std::size_t Row = (std::size_t{2} * Y + 1) * Shown.Height / (std::size_t{2} * Height);
        return Row * Shown.Width + Column;
    }

    void SetSize(unsigned Width, unsigned Height)
    {
        const std::lock_guard Hold(m_mutex);
        m_width = Width;
        m_height = Height;
    }

    void Work(const std::shared_ptr<Session> Run)
    {
        for (unsigned Last = 0; !Run->Over;)
        {
            const unsigned Number = Screen::Instance().Await([&](const Picture *Shown) {
                return Run->Over || (!Run->Told && Shown && Shown->Number > Last);
            });
            if (Run->Over)
                return;
            Last = Number;
            Run->Told = true;
            m_owner.Tell(new VideoFrameAvailableEvent(Number));
        }
    }

    UVAMediaBackend &m_owner;
    mutable std::mutex m_mutex;
    unsigned m_width{}, m_height{}; ///< of what is copied; 0: the picture's own
    std::shared_ptr<Session> m_session;
    std::thread m_thread;
};

UVAMediaBackend::UVAMediaBackend(UVABackendType Type, UVAClient *Client)
    : UVABackend(Type, Client), m_capture(new Capture(*this))
{
}

UVAMediaBackend::~UVAMediaBackend()
{
    delete m_capture;
}

int UVAMediaBackend::initBackend(const char *Origin, SourceDescription **Sources, bool Autoplay)
{
    return initBackend(Origin, Sources, Autoplay, false);
}

int UVAMediaBackend::setVideoOutputID(int Output)
{
    return Output == 0 ? Success : Failure;
}

int UVAMediaBackend::getVideoFrame(unsigned char *Frame, unsigned int Size)
{
    return m_capture->Copy(Frame, Size);
}

int UVAMediaBackend::startCapture(int Width, int Height)
{
    if (Width <= 0 || Height <= 0)
        return Failure;
    m_capture->Start(static_cast<unsigned>(Width), static_cast<unsigned>(Height));
    return Success;
}

int UVAMediaBackend::frameConsumed(unsigned int, bool Wanted)
{
    if (Wanted)
        m_capture->Continue();
    return Success;
}

int UVAMediaBackend::resourcesReleased(const std::vector<unsigned int> &)
{
    return Success;
}

int UVAMediaBackend::stopCapture()
{
    m_capture->Stop();
    return Success;
}

int UVAMediaBackend::load()
{
    return pause();
}

int UVAMediaBackend::suspend()
{
    const int Result = pause();
    return releaseResources(AllResources) == Success ? Result : Failure;
}

int UVAMediaBackend::getStartDate(double &)
{
    return NotAvailable;
}

int UVAMediaBackend::pauseAsync()
{
    const int Result = pause();
    if (Result == Success)
        Tell(new PauseFinishedEvent);
    return Result;
}

int UVAMediaBackend::setVolume(double Volume)
{
    return std::isnan(Volume) ? Failure : Success; // nobody listens
}

int UVAMediaBackend::getPosition(double &Seconds)
{
    const double Position = getPosition().position;
    Seconds = Position < 0 ? 0 : Position;
    return Position < 0 ? NotAvailable : Success;
}

int UVAMediaBackend::adjustPosition(const UVATime &Time)
{
    return setPosition(Time.position) == 1 ? Success : Failure;
}

int UVAMediaBackend::setVisibility(bool Visible)
{
    Screen::Instance().SetVisible(Visible);
    return Success;
}

int UVAMediaBackend::getSizeFromDuration(double, unsigned long long &)
{
    return NotAvailable;
}

int UVAMediaBackend::setCache(bool)
{
    return Success;
}

int UVAMediaBackend::queue(SourceDescription *)
{
    return Failure;
}

int UVAMediaBackend::registerExternalComponents(const std::vector<AVComponent *> &)
{
    return Success;
}

int UVAMediaBackend::unregisterExternalComponents(const std::vector<AVComponent *> &)
{
    return Success;
}

int UVAMediaBackend::onListenerChanged(const char *)
{
    return Success;
}

int UVAMediaBackend::getBytesInBuffer(unsigned long long &)
{
    return NotAvailable;
}

int UVAMediaBackend::setKeySystem(const char *Id)
{
    UVAKeySystemConfig Config;
    Config.keySystemId = Id;
    return setKeySystem(Config);
}

int UVAMediaBackend::passDataAttribute(const char *, const char *)
{
    return Success;
}

int UVAMediaBackend::setActive(bool Active)
{
    if (Active == m_active)
        return Success;
    m_active = Active;
    if (!Active)
        pause();
    Tell(new ActiveStateChangedEvent(Active));
    return Success;
}

int UVAMediaBackend::setPrefs(const std::map<std::string, std::string> &)
{
    return Success;
}

#pragma GCC visibility pop
