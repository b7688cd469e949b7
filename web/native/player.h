#ifndef UVA_NATIVE_PLAYER_H
#define UVA_NATIVE_PLAYER_H

#include "arguments.h"
#include "player_core.h"

#include <napi.h>

#include <memory>

namespace uva_native {

/// A player as JavaScript has it; see README.md. Bound to Node's thread.
class Player final : public Napi::ObjectWrap<Player> {
public:
    static Napi::Function define(Napi::Env env);

    explicit Player(const Napi::CallbackInfo& info);
    ~Player() override;

private:
    using Info = Napi::CallbackInfo;

    Napi::Value addTrack(const Info& info);
    void removeTrack(const Info& info);
    void open(const Info& info);
    void openUrl(const Info& info);
    void add(const Info& info);
    void remove(const Info& info);
    void setEnded(const Info& info);
    void setDuration(const Info& info);
    void setKeySession(const Info& info);
    void play(const Info& info);
    void pause(const Info& info);
    Napi::Value seek(const Info& info);
    Napi::Value setRate(const Info& info);
    void setVolume(const Info& info);
    void resume(const Info& info);
    Napi::Value position(const Info& info);
    Napi::Value counters(const Info& info);
    Napi::Value capture(const Info& info);
    Napi::Value describe(const Info& info);
    Napi::Value release(const Info& info);

    PlayerCore& core(const Arguments& arguments) const;
    void openOnce(const Arguments& arguments);
    host::TrackBuffer& buffer(const Arguments& arguments, std::size_t index) const;
    static void environmentEnds(void* player);

    std::shared_ptr<EventQueue> m_events;
    std::shared_ptr<PlayerCore> m_core; // null once it has been released
    bool m_isOpen = false;
};

} // namespace uva_native

#endif
