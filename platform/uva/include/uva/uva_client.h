#ifndef UVA_CLIENT_H
#define UVA_CLIENT_H

class UVAEvent;

/// What a backend talks to: one client for each media element, owned by the host, alive for as long
/// as its backend is.
///
/// The order of the virtual table is binding: event delivery is its third entry, right behind the
/// two destructors.
class UVAClient {
public:
    virtual ~UVAClient();

    /// Takes ownership of the event. Called on whatever thread raised it: the host's own, the
    /// backend's main loop or a streaming thread. The backend holds no lock, so the client may call
    /// back into the backend from here, with one exception: `releaseResources`, `removeSource` and
    /// the release of the backend wait for the streaming threads, so they are not called on one.
    /// The host's own event loop is the place for them.
    virtual void deliverEvent(UVAEvent* event) = 0;
};

#endif
