#pragma once

#include <stdexcept>

namespace vantor::ioc::internal::protobuf
{

// Why the batch formatter refused a call or a batch (state, conversion,
// serialization and boot-time errors); the text is the whole message.
class DataFormatterException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::ioc::internal::protobuf
