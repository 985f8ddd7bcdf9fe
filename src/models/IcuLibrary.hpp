#pragma once

#include <string>

#include <unicode/uregex.h>
#include <unicode/ustring.h>
#include <unicode/uvernum.h>

namespace lmkit {

// The ICU functions the regular expressions use. ICU's headers rename each to carry the
// library's version (uregex_open is uregex_open_72), and the loader looks them up by that name.
// clang-format off
#define LMKIT_ICU_FUNCTIONS(X)                                                         \
    X(uregex_open) X(uregex_clone) X(uregex_close) X(uregex_setTimeLimit)              \
    X(uregex_setText) X(uregex_find) X(u_strFromUTF8) X(u_strFromUTF8WithSub)          \
    X(u_errorName)
// clang-format on

/// ICU's regular expressions, loaded the first time a rule is compiled rather than linked: the
/// library relocates about 1.6 MB of itself at load, which every process linking the kit paid
/// even when it compiled no rule at all (a node test, the tunnel before its routing rules come).
/// Each member is the ICU function of that name.
struct IcuLibrary {
#define LMKIT_ICU_MEMBER(name) decltype(&::name) name = nullptr;
    LMKIT_ICU_FUNCTIONS(LMKIT_ICU_MEMBER)
#undef LMKIT_ICU_MEMBER

    /// The library, loaded once; nullptr and `error` when the system has no usable ICU of the
    /// version the kit was built with.
    static const IcuLibrary* load(std::string& error);
};

}  // namespace lmkit
