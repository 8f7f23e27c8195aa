#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "CorvexKit/SessionBackend.h"

namespace corvex::testing {

// The operation must fail with exactly this code and message.
inline void expectError(const std::function<void()>& operation, const std::string& code, const std::string& message) {
    try {
        operation();
        ADD_FAILURE() << "no error, expected " << message;
    } catch (const BackendError& error) {
        EXPECT_EQ(error.code(), code);
        EXPECT_EQ(error.message(), message);
    }
}

} // namespace corvex::testing
