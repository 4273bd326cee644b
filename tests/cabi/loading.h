#ifndef TESTS_CABI_LOADING_H_
#define TESTS_CABI_LOADING_H_

/* For programs that load the library themselves. */

#include <dlfcn.h>
#include <string.h>

#include "tests/cabi/program.h"

static inline void* load(const char* path) {
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL)
        fprintf(stderr, "%s\n", dlerror());
    CHECK(library != NULL);
    return library;
}

static inline void find(void* library, const char* name, void* function, size_t size) {
    /* An object pointer is not a function pointer in C99; their representation is one here. */
    void* symbol = dlsym(library, name);
    CHECK(symbol != NULL);
    memcpy(function, &symbol, size);
}

#endif /* TESTS_CABI_LOADING_H_ */
