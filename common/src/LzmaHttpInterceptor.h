#pragma once

#include "common/HttpInterceptor.h"

namespace vantor::common
{

// Sends payloads LZMA2-compressed ("Content-Encoding: LZMA"), announces that
// it accepts LZMA answers and decompresses those.
class LzmaHttpInterceptor : public HttpInterceptor
{
public:
    static constexpr const char* kEncoding = "LZMA";

    void InterceptRequest(MutableHttpRequest& request) override;
    void InterceptResponse(MutableHttpResponse& response) override;
};

} // namespace vantor::common
