#pragma once

#include <gtest/gtest.h>

#include <string>

namespace support {

/// The text of the exception that a call throws, or "none". Other exceptions pass.
template <class Exception = std::exception> std::string messageOf(auto const& call) {
    try {
        call();
    } catch (Exception const& error) {
        return error.what();
    }
    return "none";
}

/// Expects that a call throws an exception whose text names a value.
template <class Exception> void expectRefused(auto const& call, std::string const& value) {
    std::string const message = messageOf<Exception>(call);
    EXPECT_TRUE(message != "none" && message.find(value) != std::string::npos)
        << message << ", expected " << value;
}

}  // namespace support
