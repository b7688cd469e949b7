#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "UvaGstMsgDestLowerLayer.h"
#include "util/never_destroyed.h"

// The link's objects that live once in a process. Never destroyed, because threads outlive static
// destruction.

namespace {

NeverDestroyed<CUvaGstIfLowerLayer> lowerLayerStorage;
NeverDestroyed<CUvaGstMsgDestLowerLayer> destinationStorage;
NeverDestroyed<CUvaGstIfReceiver> receiverStorage __asm__("uvaGstIfReceiverStorage");

} // namespace

CUvaGstIfLowerLayer& uvaGstIfLowerLayer = lowerLayerStorage.object;
CUvaGstMsgDestLowerLayer& uvaGstIfMsgDestLowerLayer = destinationStorage.object;
// Exported: under this name others find the object itself, not a reference to it.
extern CUvaGstIfReceiver uvaGstIfReceiver __attribute__((alias("uvaGstIfReceiverStorage")));

namespace {

/// The order of construction, before the framework's objects (103). The constructors set up memory
/// only: no thread, no queue, no file.
[[gnu::constructor(102)]] void build() {
    lowerLayerStorage.build(destinationStorage.object);
    destinationStorage.build();
    receiverStorage.build(lowerLayerStorage.object);
}

} // namespace
