// <windows.h> without the rarely used parts, for the platform layer's Windows code. Includes
// nothing elsewhere.
#pragma once

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#endif
