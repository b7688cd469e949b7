// A host process may define these two instead: weak, so that its definition wins in a static link;
// visible, so that it wins over the shared library's. In a source that nothing else is compiled
// with, or the compiler would take the length of this array for that of the host's.

#define REPLACEABLE __attribute__((weak, visibility("default")))

extern const char* traceUnitsStringArray[];
extern const unsigned* traceUnitsStringArraySizePtr;

REPLACEABLE const char* traceUnitsStringArray[] = {"TRACE_NONE"};

static const unsigned size = sizeof traceUnitsStringArray;
REPLACEABLE const unsigned* traceUnitsStringArraySizePtr = &size;
