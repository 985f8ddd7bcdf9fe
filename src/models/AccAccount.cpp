#include "lmkit/models/AccAccount.hpp"

namespace lmkit {

const std::vector<Property<AccAccount>>& AccAccount::properties() {
    static const std::vector<Property<AccAccount>> table{
        prop("username", "account", &AccAccount::username),
        prop("password", "gacc_code", &AccAccount::password),
    };
    return table;
}

}  // namespace lmkit
