#ifndef UVA_HOST_ORDERS_H
#define UVA_HOST_ORDERS_H

#include <string>

namespace uvahost {

class Playback;

/// Gives all scripts their commands, which go to what is played when they are called. Once; the
/// pointer outlives the scripts, which run while it is not null.
void registerOrders(Playback* const& playback);

/// For the program's help: a usage with what it does, each.
std::string ordersHelp();

} // namespace uvahost

#endif
