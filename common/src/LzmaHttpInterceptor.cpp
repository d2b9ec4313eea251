#include "common/LzmaHttpInterceptor.h"

#include "common/InMemoryHttpResponse.h"
#include "common/Logging.h"
#include "common/util/Lzma.h"

#include <strings.h>

namespace vantor::common
{

void LzmaHttpInterceptor::InterceptRequest(MutableHttpRequest& request)
{
    request.AddHeader("Accept-Encoding", kEncoding);
    if (request.Payload().empty())
    {
        return;
    }
    try
    {
        request.SetPayload(util::LzmaCompress(request.Payload()));
    }
    catch (const util::LzmaException& e)
    {
        throw HttpInterceptorException(std::string("LzmaHttpInterceptor: ") + e.what());
    }
    request.AddHeader("Content-Encoding", kEncoding);
    EDR_LOG_DEBUG("Request payload data is " << kEncoding << " compressed.");
}

void LzmaHttpInterceptor::InterceptResponse(MutableHttpResponse& response)
{
    const auto encoding = response.Headers().Get("Content-Encoding");
    if (!encoding || strcasecmp(encoding->c_str(), kEncoding) != 0)
    {
        return;
    }
    EDR_LOG_DEBUG("Payload data is " << kEncoding << " compressed.");
    try
    {
        // Decompressed no further than the response may hold: a small body
        // can expand without limit.
        const auto* inMemory = dynamic_cast<const InMemoryHttpResponse*>(&response);
        const std::string plain = inMemory != nullptr
                                      ? util::LzmaDecompress(inMemory->PayloadRef(), inMemory->MaxPayload())
                                      : util::LzmaDecompress(response.Payload());
        response.SetPayload(plain);
        response.RemoveHeader("Content-Encoding");
    }
    catch (const util::LzmaException& e)
    {
        EDR_LOG_ERROR("Failed to decompress the response");
        throw HttpInterceptorException(std::string("Failed to decompress the response: ") + e.what());
    }
}

} // namespace vantor::common
