#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit::testing {

/// Decodes `json` (or JSON `text`) as record R, failing the test (with the adapter's reason)
/// when it does not.
template <class R>
std::shared_ptr<R> decode(const Json& json) {
    Error error;
    auto record = JSONAdapter::modelOfClass<R>(json, &error);
    EXPECT_TRUE(record) << error.localizedDescription();
    return record;
}
template <class R>
std::shared_ptr<R> decode(const char* text) {
    return decode<R>(Json::parse(text));
}

}  // namespace lmkit::testing
