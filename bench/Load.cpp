#include <cstdio>
#include <dlfcn.h>

// Loads a shared library, resolves everything and ends: bench-load LIBRARY
int main(int argc, char** argv) {
    if (argc != 2 || dlopen(argv[1], RTLD_NOW) == nullptr) {
        std::fprintf(stderr, "bench-load: %s\n", argc == 2 ? dlerror() : "which library?");
        return 1;
    }
    return 0;
}
