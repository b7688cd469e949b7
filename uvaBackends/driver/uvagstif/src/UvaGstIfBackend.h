#ifndef UVA_GST_IF_BACKEND_H
#define UVA_GST_IF_BACKEND_H

/// What the decoder-arbitration receiver asks of the backend that is connected to it.
class UvaGstIfBackend {
public:
    /// Obeys a control text of the main system; zero-terminated, the caller's. On the receiver's
    /// thread, with the receiver's `backendMutex` held: it must not call connectBackend, nor wait
    /// for a thread that does. So it may take a lock of the backend only if nobody calls
    /// connectBackend under that lock.
    virtual void controlCommands(const char* commands) = 0;

protected:
    ~UvaGstIfBackend() = default;
};

#endif
