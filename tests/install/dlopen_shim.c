/* Takes every dlopen call and forwards it, as sanitizers and preloaded libraries do: the dynamic
 * loader then sees this library as the caller, whose RUNPATH names no folder. Preloaded into an
 * installed host, it shows that the library still finds the modules beside it. */
#define _GNU_SOURCE
#include <dlfcn.h>

void* dlopen(const char* file, int mode) {
    void* (*next)(const char*, int) = (void* (*)(const char*, int))dlsym(RTLD_NEXT, "dlopen");
    return next(file, mode);
}
