#ifndef HOST_WINDOW_H
#define HOST_WINDOW_H

#include "host/media_element.h"

namespace host {

class Calls;

// What a backend shows on screen. The backend is there.

/// In a screen of 1280 by 720.
void setWindow(Calls& calls, const UVABackend::Rect& window);
/// The picture on screen in its own size.
MediaElement::Capture capture(Calls& calls);

} // namespace host

#endif
