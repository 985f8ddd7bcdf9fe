#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit::testing {

/// Decodes `text` as record R, failing the test (with the adapter's reason) when it does not.
template <class R>
std::shared_ptr<R> decode(const char* text) {
    Error error;
    auto record = JSONAdapter::modelOfClass<R>(Json::parse(text), &error);
    EXPECT_TRUE(record) << error.localizedDescription();
    return record;
}

}  // namespace lmkit::testing
