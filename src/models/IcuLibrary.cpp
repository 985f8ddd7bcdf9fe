#include "models/IcuLibrary.hpp"

#include <dlfcn.h>

#include <mutex>

namespace lmkit {

namespace {
#define LMKIT_ICU_TEXT(x) #x
#define LMKIT_ICU_EXPANDED_TEXT(x) LMKIT_ICU_TEXT(x)
// The i18n library brings the common one (u_strFromUTF8, u_errorName) with it, and a lookup
// through its handle finds those too.
constexpr const char* kLibraryName =
    "libicui18n.so." LMKIT_ICU_EXPANDED_TEXT(U_ICU_VERSION_MAJOR_NUM);
}  // namespace

const IcuLibrary* IcuLibrary::load(std::string& error) {
    static IcuLibrary library;
    static std::string failure;
    static std::once_flag once;
    std::call_once(once, [] {
        void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char* reason = dlerror();
            failure = std::string("cannot load ICU: ") + (reason ? reason : kLibraryName);
            return;
        }
        // Each name expands to ICU's versioned symbol (uregex_open_72).
#define LMKIT_ICU_RESOLVE(name)                                                                 \
    library.name =                                                                              \
        reinterpret_cast<decltype(library.name)>(dlsym(handle, LMKIT_ICU_EXPANDED_TEXT(name))); \
    if (!library.name && failure.empty())                                                       \
        failure = "cannot load ICU: it has no " LMKIT_ICU_EXPANDED_TEXT(name);
        LMKIT_ICU_FUNCTIONS(LMKIT_ICU_RESOLVE)
#undef LMKIT_ICU_RESOLVE
        // The handle stays open: compiled rules use the library until the process ends.
    });
    if (!failure.empty()) {
        error = failure;
        return nullptr;
    }
    return &library;
}

}  // namespace lmkit
