// <windows.h> without the rarely used parts and without the min and max macros (std::min and
// std::max stay usable), for every Windows-specific source. Includes nothing elsewhere.
#pragma once

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif
