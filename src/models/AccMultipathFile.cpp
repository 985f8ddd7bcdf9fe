#include "lmkit/models/AccMultipathFile.hpp"

namespace lmkit {

const std::vector<Property<AccMultipathFile>>& AccMultipathFile::properties() {
    static const std::vector<Property<AccMultipathFile>> table{
        prop("name", &AccMultipathFile::name),
        prop("link", &AccMultipathFile::link),
        prop("key", &AccMultipathFile::key),
    };
    return table;
}

}  // namespace lmkit
