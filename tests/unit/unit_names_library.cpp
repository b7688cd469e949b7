#include "debug/trace/zant_trace_core.h"

// What a library that carries the framework sees of its host's unit names.

extern "C" {

__attribute__((visibility("default"))) const char* unitName(unsigned unit);
__attribute__((visibility("default"))) unsigned unitNumber(const char* name);
__attribute__((visibility("default"))) int32_t traceOn(const char* unit, const char* level);
__attribute__((visibility("default"))) void listUnits();

const char* unitName(unsigned unit) {
    return zantTrace.GetTraceUnitNamePtr(unit);
}
unsigned unitNumber(const char* name) {
    return zantTrace.GetTraceUnitNrByName(name);
}
int32_t traceOn(const char* unit, const char* level) {
    return zantTrace.SetTraceOn(unit, level);
}
void listUnits() {
    zantTrace.StartTracingToScreen();
    zantTrace.PrintAllTraceActivationStates();
}
}
