/* SPDX-License-Identifier: Apache-2.0
 * Loads a plug-in, uses it and unloads it, twice: unload_plugin PLUGIN LIBRARY. The library below it must stay, for its
 * threads run in it, and its bus master must be the same, and alive, the second time. */
#include <dlfcn.h>
#include <stdio.h>

int main(int argc, char** argv) {
    int round;
    if (argc != 3) return 98;
    for (round = 1; round <= 2; ++round) {
        void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        int (*use)(void) = 0;
        int answer = -1;
        if (plugin == NULL) return fprintf(stderr, "%s\n", dlerror()), 1;
        *(void**)&use = dlsym(plugin, "UseBusMaster");
        if (use != 0) answer = use();
        if (answer != 0) return fprintf(stderr, "round %d: the plug-in answered %d\n", round, answer), 1;
        dlclose(plugin);
        if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != NULL) return fputs("the plug-in stayed\n", stderr), 1;
        if (dlopen(argv[2], RTLD_NOW | RTLD_NOLOAD) == NULL) return fputs("the library went\n", stderr), 1;
    }
    puts("0 cameras, 0 devices");
    return 0;
}
