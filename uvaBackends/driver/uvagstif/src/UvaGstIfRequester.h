#ifndef UVA_GST_IF_REQUESTER_H
#define UVA_GST_IF_REQUESTER_H

/// Whose a decoder is: a backend has one. It is known by its address; CUvaGstIfReceiver::leave
/// comes before its end.
class UvaGstIfRequester {
public:
    UvaGstIfRequester() = default;
    UvaGstIfRequester(const UvaGstIfRequester&) = delete;
    UvaGstIfRequester& operator=(const UvaGstIfRequester&) = delete;
};

#endif
