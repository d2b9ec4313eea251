#pragma once

#include "common/MutableHttpResponse.h"

#include <cstddef>
#include <string>

namespace vantor::common
{

// A response whose body is kept in memory, up to a limit: a body that would
// pass it, as received or after an interceptor's decompression, fails the
// request (HttpResponseException), so that a hostile or broken server
// cannot exhaust the daemon's memory. The default fits every answer that
// the daemon keeps in memory (upload acknowledgements).
class InMemoryHttpResponse : public MutableHttpResponse
{
public:
    static constexpr std::size_t kDefaultMaxPayload = 4 * 1024 * 1024;

    explicit InMemoryHttpResponse(std::size_t maxPayload = kDefaultMaxPayload)
        : m_maxPayload(maxPayload)
    {
    }

    std::size_t MaxPayload() const { return m_maxPayload; }
    std::string Payload() const override { return m_payload; }
    // Avoids the copy of Payload() for large bodies.
    const std::string& PayloadRef() const { return m_payload; }
    bool SupportsInterceptors() const override { return true; }

protected:
    void DoAppend(std::string_view data) override
    {
        if (data.size() > m_maxPayload - m_payload.size())
        {
            throw HttpResponseException("HttpResponse payload exceeds " + std::to_string(m_maxPayload) +
                                        " bytes");
        }
        m_payload.append(data);
    }
    void DoClearPayload() override { m_payload.clear(); }

private:
    const std::size_t m_maxPayload;
    std::string m_payload;
};

} // namespace vantor::common
