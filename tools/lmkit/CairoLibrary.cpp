#include "CairoLibrary.hpp"

#include <dlfcn.h>

#include <mutex>

namespace lmkit::tool {

const CairoLibrary* CairoLibrary::load(std::string& error) {
    static CairoLibrary library;
    static std::string failure;
    static std::once_flag once;
    std::call_once(once, [] {
        void* handle = dlopen("libcairo.so.2", RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char* reason = dlerror();
            failure = std::string("cannot load cairo: ") + (reason ? reason : "libcairo.so.2");
            return;
        }
#define LMKIT_CAIRO_RESOLVE(name)                                                           \
    library.name = reinterpret_cast<decltype(library.name)>(dlsym(handle, "cairo_" #name)); \
    if (!library.name && failure.empty())                                                   \
        failure = "cannot load cairo: it has no cairo_" #name;
        LMKIT_CAIRO_FUNCTIONS(LMKIT_CAIRO_RESOLVE)
#undef LMKIT_CAIRO_RESOLVE
        // The handle stays open: the functions are used until the process ends.
    });
    if (!failure.empty()) {
        error = failure;
        return nullptr;
    }
    return &library;
}

}  // namespace lmkit::tool
