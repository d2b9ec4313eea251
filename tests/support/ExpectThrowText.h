#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace vantor::test
{

// Expects the call to throw an E whose text starts with the given text (the
// whole text unless the error appends a reason).
template <typename E>
void ExpectThrowText(const std::function<void()>& call, const std::string& text)
{
    try
    {
        call();
        ADD_FAILURE() << "no exception, expected: " << text;
    }
    catch (const E& e)
    {
        EXPECT_EQ(std::string(e.what()).substr(0, text.size()), text) << e.what();
    }
}

} // namespace vantor::test
