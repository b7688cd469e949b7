#ifndef CHAOS_SCENARIOS_H
#define CHAOS_SCENARIOS_H

#include "walk.h"

/// Bounded random walks. What is checked holds whatever happened on the way; it ends the process
/// when it does not. Each runs in a process of its own.
namespace chaos {

void arbitration(Random random);
void sources(Random random);
void seeks(Random random);
void releases(Random random);
void feeding(Random random);
void shell(Random random);
void configuration(Random random);
void starts(Random random);

} // namespace chaos

#endif
