#pragma once
#include <otherset/link.h>
