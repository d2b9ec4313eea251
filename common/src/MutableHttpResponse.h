#pragma once

#include "common/HttpResponse.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vantor::common
{

class HttpResponseException : public std::logic_error
{
public:
    using std::logic_error::logic_error;
};

// The response while the service fills it. Every change after Finalize()
// throws HttpResponseException; Reset() returns an unfinalised response to
// its initial state between attempts of one request.
class MutableHttpResponse : public HttpResponse
{
public:
    void SetStatus(long status);
    void AddHeader(std::string name, std::string value);
    void RemoveHeader(std::string_view name);
    void AppendPayload(std::string_view data);
    void SetPayload(std::string_view data);
    void SetOutcome(Outcome outcome, std::string error = {});
    void Finalize();
    void Reset();

protected:
    virtual void DoAppend(std::string_view data) = 0;
    virtual void DoClearPayload() = 0;
    virtual void DoFinalize() {}
};

} // namespace vantor::common
