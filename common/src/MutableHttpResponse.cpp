#include "common/MutableHttpResponse.h"

namespace vantor::common
{

void MutableHttpResponse::SetStatus(long status)
{
    if (m_finalized)
    {
        throw HttpResponseException("Cannot update HttpResponse status after it has been finalized");
    }
    m_status = status;
}

void MutableHttpResponse::AddHeader(std::string name, std::string value)
{
    if (m_finalized)
    {
        throw HttpResponseException("Cannot add header to HttpResponse after it has been finalized");
    }
    m_headers.Append(std::move(name), std::move(value));
}

void MutableHttpResponse::RemoveHeader(std::string_view name)
{
    if (m_finalized)
    {
        throw HttpResponseException("Cannot remove header from HttpResponse after it has been finalized");
    }
    m_headers.Remove(name);
}

void MutableHttpResponse::AppendPayload(std::string_view data)
{
    if (m_finalized)
    {
        throw HttpResponseException("Cannot update HttpResponse payload after it has been finalized");
    }
    DoAppend(data);
}

void MutableHttpResponse::SetPayload(std::string_view data)
{
    if (m_finalized)
    {
        throw HttpResponseException("Cannot update HttpResponse payload after it has been finalized");
    }
    DoClearPayload();
    DoAppend(data);
}

void MutableHttpResponse::SetOutcome(Outcome outcome, std::string error)
{
    if (m_finalized)
    {
        throw HttpResponseException("Cannot update HttpResponse status after it has been finalized");
    }
    m_outcome = outcome;
    m_error = std::move(error);
}

void MutableHttpResponse::Finalize()
{
    if (m_finalized)
    {
        return;
    }
    DoFinalize();
    m_finalized = true;
}

void MutableHttpResponse::Reset()
{
    if (m_finalized)
    {
        throw HttpResponseException("Cannot reset HttpResponse to initial state");
    }
    m_status = 0;
    m_headers.Clear();
    m_outcome = Outcome::Pending;
    m_error.clear();
    DoClearPayload();
}

} // namespace vantor::common
