#pragma once

// Reading of records whose every non-optional field must be present with the right kind: a
// missing key or a value that does not fit fails the whole record with an error naming the key.

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit::models_detail {

class StrictReader {
  public:
    explicit StrictReader(const Json& object) : object_(object) {}

    bool failed() const { return failed_; }
    const Error& error() const { return error_; }

    template <class T>
    T required(const char* key) {
        auto value = optional<T>(key);
        if (!value && !failed_)
            fail(key, "is missing");
        return value.value_or(T{});
    }

    /// Absent and null both read as nil; a present value of the wrong kind fails.
    template <class T>
    std::optional<T> optional(const char* key) {
        if (failed_)
            return std::nullopt;
        auto it = object_.find(key);
        if (it == object_.end() || it->is_null())
            return std::nullopt;
        T out{};
        if (!read(*it, out)) {
            fail(key, "has the wrong type");
            return std::nullopt;
        }
        return out;
    }

  private:
    void fail(const char* key, const char* what) {
        failed_ = true;
        error_ = invalidInput(std::string("\"") + key + "\" " + what);
    }

    static bool read(const Json& j, std::string& out) {
        if (!j.is_string())
            return false;
        out = j.get_ref<const std::string&>();
        return true;
    }
    static bool read(const Json& j, bool& out) {
        if (!j.is_boolean())
            return false;
        out = j.get<bool>();
        return true;
    }
    static bool read(const Json& j, double& out) {
        if (!j.is_number())
            return false;
        out = j.get<double>();
        return true;
    }
    static bool read(const Json& j, std::vector<double>& out) {
        if (!j.is_array())
            return false;
        for (const auto& e : j) {
            double d = 0;
            if (!read(e, d))
                return false;
            out.push_back(d);
        }
        return true;
    }
    // Unsigned integers: whole numbers in range only (1.5, -1 or 70000 for 16 bits fail).
    template <class U>
    requires(std::is_integral_v<U>&& std::is_unsigned_v<U> &&
             !std::is_same_v<U, bool>) static bool read(const Json& j, U& out) {
        if (j.is_number_unsigned()) {
            auto v = j.get<std::uint64_t>();
            if (v > std::numeric_limits<U>::max())
                return false;
            out = static_cast<U>(v);
            return true;
        }
        if (j.is_number_integer()) {
            auto v = j.get<std::int64_t>();
            if (v < 0 || static_cast<std::uint64_t>(v) > std::numeric_limits<U>::max())
                return false;
            out = static_cast<U>(v);
            return true;
        }
        if (j.is_number_float()) {
            double d = j.get<double>();
            if (!(d >= 0) || d != std::floor(d) ||
                d > static_cast<double>(std::numeric_limits<U>::max()))
                return false;
            out = static_cast<U>(d);
            return true;
        }
        return false;
    }

    const Json& object_;
    bool failed_ = false;
    Error error_;
};

}  // namespace lmkit::models_detail
