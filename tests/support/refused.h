#pragma once

#include <gtest/gtest.h>

#include <string>

namespace support {

/// Expects that a call throws an exception whose text names a value.
template <class Exception, class Call>
void expectRefused(Call const& call, std::string const& value) {
    try {
        call();
        ADD_FAILURE() << "no exception that names " << value;
    } catch (Exception const& error) {
        EXPECT_NE(std::string(error.what()).find(value), std::string::npos) << error.what();
    }
}

}  // namespace support
