#include "lmkit/tunnel/DecodingError.hpp"

namespace lmkit {

DecodingError DecodingError::dataCorrupted(std::vector<std::string> path, std::string description) {
    return {Kind::DataCorrupted, std::move(path), std::move(description)};
}

DecodingError DecodingError::keyNotFound(std::vector<std::string> path, const std::string& key) {
    return {Kind::KeyNotFound, std::move(path), "No value associated with key \"" + key + "\"."};
}

DecodingError DecodingError::typeMismatch(std::vector<std::string> path,
                                          const std::string& expected, const std::string& found) {
    return {Kind::TypeMismatch, std::move(path),
            "Expected to decode " + expected + " but found " + found + " instead."};
}

DecodingError DecodingError::valueNotFound(std::vector<std::string> path,
                                           const std::string& expected) {
    return {Kind::ValueNotFound, std::move(path),
            "Expected " + expected + " value but found null instead."};
}

const char* DecodingError::kindName(Kind kind) {
    switch (kind) {
        case Kind::DataCorrupted:
            return "data corrupted";
        case Kind::KeyNotFound:
            return "key not found";
        case Kind::TypeMismatch:
            return "type mismatch";
        case Kind::ValueNotFound:
            return "value not found";
    }
    return "decoding error";
}

std::string DecodingError::localizedDescription() const {
    std::string path;
    for (const auto& key : codingPath)
        path += (path.empty() ? "" : ".") + key;
    return std::string(kindName(kind)) + " at " + (path.empty() ? "<root>" : path) + ": " +
           debugDescription;
}

}  // namespace lmkit
