#pragma once

#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace vantor::test
{

// The text of the E that call threw, or "no error".
template <typename E = std::exception>
std::string ErrorOf(const std::function<void()>& call)
{
    try
    {
        call();
    }
    catch (const E& e)
    {
        return e.what();
    }
    return "no error";
}

// The whole content of a file; empty when it cannot be read.
inline std::string ReadWhole(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace vantor::test
