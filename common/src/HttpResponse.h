#pragma once

#include "common/HttpHeaders.h"

#include <string>

namespace vantor::common
{

// Read-only view of the answer to one request, handed to completion
// callbacks. Frozen once finalised.
class HttpResponse
{
public:
    // How the exchange ended; Completed means an HTTP answer arrived,
    // whatever its status.
    enum class Outcome
    {
        Pending,
        Completed,
        Failed,
        Cancelled
    };

    virtual ~HttpResponse() = default;

    long Status() const { return m_status; }
    const HttpHeaders& Headers() const { return m_headers; }
    Outcome GetOutcome() const { return m_outcome; }
    // Transport or interceptor failure text; empty for a completed exchange.
    const std::string& Error() const { return m_error; }
    bool IsFinalized() const { return m_finalized; }
    bool IsSuccess() const { return m_outcome == Outcome::Completed && m_status >= 200 && m_status < 300; }

    // The body. An on-disk response reads it back from its file.
    virtual std::string Payload() const = 0;
    virtual bool SupportsInterceptors() const = 0;

protected:
    HttpResponse() = default;

    long m_status = 0;
    HttpHeaders m_headers;
    Outcome m_outcome = Outcome::Pending;
    std::string m_error;
    bool m_finalized = false;
};

} // namespace vantor::common
