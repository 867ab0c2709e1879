// Loads the library on its own, keeps a trace ring mapped through it, and
// unloads it again, reporting how often the ring file was mapped before and
// after the unloading and whether the library is gone:
//
//   ring_unload_probe LIBRARY TRACE_FILE
//   -> "before 1 after 0 unloaded 1"
//
// A program of its own: a second copy of the library loaded beside the one a
// test program links would share its exported data (and trip the address
// sanitizer's one-definition check).
#include "kemail.h"
#include "mapped_files.h"

#include <cstdio>
#include <string>

#include <dlfcn.h>

using log_test::mappings_of;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: ring_unload_probe LIBRARY TRACE_FILE\n");
        return 2;
    }
    void* library = ::dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", ::dlerror());
        return 1;
    }
    using OpenFn = TraceHandle* (*)(const char*, unsigned int, unsigned int);
    using CloseFn = int (*)(TraceHandle*);
    const auto open = reinterpret_cast<OpenFn>(::dlsym(library, "Topen"));
    const auto close = reinterpret_cast<CloseFn>(::dlsym(library, "Tclose"));
    if (open == nullptr || close == nullptr) return 1;
    // The first Topen makes the file, the second maps it as one of its size.
    for (int i = 0; i < 2; ++i) {
        TraceHandle* handle = open(argv[2], 5, 1);
        if (handle == nullptr || close(handle) != 0) return 1;
    }
    const int before = mappings_of(argv[2]);
    if (::dlclose(library) != 0) return 1;
    const bool unloaded = ::dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) == nullptr;
    std::printf("before %d after %d unloaded %d\n", before, mappings_of(argv[2]), unloaded ? 1 : 0);
    return 0;
}
