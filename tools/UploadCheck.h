#pragma once

#include "common/HttpHeaders.h"

#include <string>

namespace vantor::tools
{

// What the back end checks of an upload before it takes it. Stateless.
class UploadCheck
{
public:
    // Why the back end would refuse the request's headers: a fixed header
    // missing or wrong, or a C-PAYLOADHASH that is not the SHA-256 of the
    // body as sent; empty when they pass.
    static std::string FixedHeaders(const common::HttpHeaders& headers, const std::string& body);

    // Why the back end would refuse a health-status upload (payload after
    // decompression): C-PROTOTYPE "status", "application/json", a JSON body
    // {"status": [...]} of records with their time, context, status code and
    // state, and additional fields only when there are some. Empty when it
    // takes it.
    static std::string Status(const common::HttpHeaders& headers, const std::string& payload);
};

} // namespace vantor::tools
