#pragma once

#include "common/MutableHttpResponse.h"

#include <string>

namespace vantor::common
{

class InMemoryHttpResponse : public MutableHttpResponse
{
public:
    std::string Payload() const override { return m_payload; }
    // Avoids the copy of Payload() for large bodies.
    const std::string& PayloadRef() const { return m_payload; }
    bool SupportsInterceptors() const override { return true; }

protected:
    void DoAppend(std::string_view data) override { m_payload.append(data); }
    void DoClearPayload() override { m_payload.clear(); }

private:
    std::string m_payload;
};

} // namespace vantor::common
