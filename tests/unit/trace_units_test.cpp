#include "support/stdout_capture.h"

#include <cstdint>
#include <dlfcn.h>
#include <gtest/gtest.h>

// A host that names the trace units of the library it loads.

extern "C" {
#define EXPORTED __attribute__((visibility("default")))
EXPORTED extern const char* traceUnitsStringArray[];
EXPORTED extern const unsigned* traceUnitsStringArraySizePtr;
const char* traceUnitsStringArray[] = {"UNIT_OTHER", "TRACE_NONE", "TUNER",    "TRACE_G_SPARE1",
                                       "Tuner",      nullptr,      "SUBTITLE", "LAST_IS_NO_UNIT"};
static const unsigned unitNamesSize = sizeof traceUnitsStringArray;
const unsigned* traceUnitsStringArraySizePtr = &unitNamesSize;
}

namespace {

std::string libraryPath;

template <typename Function>
Function* find(const char* name) {
    static void* const library = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const symbol = library ? dlsym(library, name) : nullptr;
    EXPECT_NE(symbol, nullptr) << dlerror();
    return reinterpret_cast<Function*>(symbol);
}

} // namespace

TEST(TraceUnits, LibrarySeesTheNamesOfItsHost) {
    const auto unitName = find<const char*(unsigned)>("unitName");
    const auto unitNumber = find<unsigned(const char*)>("unitNumber");
    const auto traceOn = find<int32_t(const char*, const char*)>("traceOn");
    ASSERT_TRUE(unitName && unitNumber && traceOn);

    EXPECT_STREQ(unitName(2), "TUNER");
    EXPECT_STREQ(unitName(6), "SUBTITLE");
    EXPECT_STREQ(unitName(7), "UNIT_OTHER"); // the last entry names no unit
    EXPECT_STREQ(unitName(4000000000u), "UNIT_OTHER");
    EXPECT_EQ(unitNumber("tuner"), 2u); // the first match
    EXPECT_EQ(unitNumber("subTITLE"), 6u);
    EXPECT_EQ(unitNumber("LAST_IS_NO_UNIT"), 0u);
    EXPECT_EQ(unitNumber(nullptr), 0u);

    EXPECT_EQ(traceOn("UNIT_OTHER", "TRACELEVEL_INFO"), -1600);
    EXPECT_EQ(traceOn("MISSING", "TRACELEVEL_INFO"), -1600);
    EXPECT_EQ(traceOn("tuner", "tracelevel_info_old"), 0);
    EXPECT_EQ(traceOn("subtitle", "no such level"), 0);

    support::StdoutCapture screen;
    find<void()>("listUnits")();
    const std::string listing = screen.take();
    EXPECT_EQ(listing.find("Trace unit   2 TUNER                  - Trace activation state = 10 "
                           "(TRACELEVEL_DEBUG)\n"
                           "Trace unit   4 Tuner                  - Trace activation state = 30 "
                           "(TRACELEVEL_WARNING)\n"),
              0u);
    EXPECT_NE(listing.find("Trace unit   6 SUBTITLE               - Trace activation state = 0 "
                           "(TRACELEVEL_ALL)\n"
                           "Trace unit   7 UNIT_OTHER             - Trace activation state = 30 "),
              std::string::npos);
    EXPECT_EQ(listing.find("SPARE"), std::string::npos);
}

int main(int argumentCount, char** arguments) {
    ::testing::InitGoogleTest(&argumentCount, arguments);
    if (argumentCount < 2) {
        fprintf(stderr, "usage: %s <library that carries the framework>\n", arguments[0]);
        return 2;
    }
    libraryPath = arguments[1];
    return RUN_ALL_TESTS();
}
