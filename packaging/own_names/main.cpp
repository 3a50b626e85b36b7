// A program that knows nothing of the analytics library but a plugin that uses it, and that exports
// its own symbols. Exit code 0 if the plugin's parcels arrive.

#include "OwnNames.h"

#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    void* symbol = plugin == nullptr ? nullptr : dlsym(plugin, "parcelsThatArrive");
    if (symbol == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    return reinterpret_cast<int (*)()>(symbol)() == 2 ? 0 : 1;
}
