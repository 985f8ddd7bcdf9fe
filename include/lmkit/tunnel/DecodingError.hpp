#pragma once

#include <string>
#include <vector>

namespace lmkit {

/// Why a keyed JSON object did not decode into a value: what went wrong, at which key path, and
/// a description for people. The descriptions of a corrupt value are part of the contract
/// ("Unrecognized request command: Stop").
struct DecodingError {
    enum class Kind {
        DataCorrupted,  // the value is there but cannot be what it claims to be
        KeyNotFound,    // a required key is missing
        TypeMismatch,   // the value has another JSON type than the one required
        ValueNotFound,  // the value is null where one is required
    };

    Kind kind = Kind::DataCorrupted;
    std::vector<std::string> codingPath;  // keys from the root to the failing value
    std::string debugDescription;

    static DecodingError dataCorrupted(std::vector<std::string> path, std::string description);
    static DecodingError keyNotFound(std::vector<std::string> path, const std::string& key);
    static DecodingError typeMismatch(std::vector<std::string> path, const std::string& expected,
                                      const std::string& found);
    static DecodingError valueNotFound(std::vector<std::string> path, const std::string& expected);

    /// "<kind> at <path>: <description>", one line.
    std::string localizedDescription() const;
    static const char* kindName(Kind kind);
};

/// A decoded value or the reason it did not decode. A default-made result is an error, so that a
/// forgotten assignment can never read as success.
template <class T>
class DecodeResult {
  public:
    DecodeResult() : error_(DecodingError::dataCorrupted({}, "nothing was decoded")) {}
    DecodeResult(T value) : value_(std::move(value)), ok_(true) {}
    DecodeResult(DecodingError error) : error_(std::move(error)) {}

    bool ok() const { return ok_; }
    explicit operator bool() const { return ok_; }
    /// The value; only meaningful when ok().
    const T& value() const { return value_; }
    T& value() { return value_; }
    /// The reason; only meaningful when !ok().
    const DecodingError& error() const { return error_; }

  private:
    T value_{};
    DecodingError error_;
    bool ok_ = false;
};

}  // namespace lmkit
