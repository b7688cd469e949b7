#pragma once
#include <otherset/host.hpp>
