#ifndef ONE_BACKEND_H
#define ONE_BACKEND_H

#include "backend/gstnox_backend.h"
#include "plugin/gstnox_plugin.h"
#include "support/log_capture.h"
#include "support/media_host.h"

#include <gtest/gtest.h>

using support::LogCapture;
using support::RecordingClient;
using support::TestSource;

/// One backend and the client that it tells.
class OneBackend : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(BackendInit(nullptr)); }

    RecordingClient client;
    GstNoxBackend backend{UVABackend::VideoElement, &client};
};

#endif
