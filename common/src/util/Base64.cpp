#include "common/util/Base64.h"

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/Exception.h>

#include <iterator>
#include <sstream>
#include <stdexcept>

namespace vantor::util
{

std::string Base64Encode(std::string_view data)
{
    std::ostringstream out;
    Poco::Base64Encoder encoder(out);
    encoder.rdbuf()->setLineLength(0);
    encoder.write(data.data(), static_cast<std::streamsize>(data.size()));
    encoder.close();
    return out.str();
}

std::string Base64Decode(std::string_view text)
{
    std::istringstream in{std::string(text)};
    Poco::Base64Decoder decoder(in);
    try
    {
        std::string out{std::istreambuf_iterator<char>(decoder), std::istreambuf_iterator<char>()};
        if (decoder.bad())
        {
            throw std::invalid_argument("Base64Decode: invalid input");
        }
        return out;
    }
    catch (const Poco::Exception&)
    {
        throw std::invalid_argument("Base64Decode: invalid input");
    }
}

} // namespace vantor::util
