#include "common/HttpRequest.h"

namespace vantor::common
{

const char* ToString(HttpMethod method)
{
    switch (method)
    {
    case HttpMethod::Get:
        return "GET";
    case HttpMethod::Post:
        return "POST";
    case HttpMethod::Put:
        return "PUT";
    case HttpMethod::Delete:
        return "DELETE";
    }
    return "GET";
}

} // namespace vantor::common
