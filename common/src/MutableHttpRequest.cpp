#include "common/MutableHttpRequest.h"

#include <stdexcept>

namespace vantor::common
{

MutableHttpRequest::MutableHttpRequest(HttpMethod method, std::string url)
{
    m_method = method;
    m_url = std::move(url);
}

void MutableHttpRequest::Validate() const
{
    if (m_method == HttpMethod::Put && m_payload.size() > kMaxPutPayload)
    {
        throw std::invalid_argument("PUT method only supports a maximum payload of 16KB");
    }
}

} // namespace vantor::common
