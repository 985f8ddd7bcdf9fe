#include "lmkit/settings/RecordArchiving.hpp"

#include <cxxabi.h>

namespace lmkit::settings_detail {

std::string recordTypeName(const std::type_info& type) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : type.name();
    std::free(demangled);
    if (auto scope = name.rfind("::"); scope != std::string::npos)
        name.erase(0, scope + 2);
    return name;
}

}  // namespace lmkit::settings_detail
