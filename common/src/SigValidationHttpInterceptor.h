#pragma once

#include "common/HttpInterceptor.h"

#include <memory>
#include <string>

struct evp_pkey_st;

namespace vantor::common
{

// Accepts only answers signed by the back end: the header
// "X-CRVD-Signature" holds the base64 of a SHA-256 signature (RSA PKCS#1
// v1.5 or ECDSA, as the key dictates) over the response body as received,
// made with the private half of the public key given here. Answers other
// than 2xx carry no signature and pass unchanged; a 2xx answer without a
// valid signature fails the request.
class SigValidationHttpInterceptor : public HttpInterceptor
{
public:
    static constexpr const char* kSignatureHeader = "X-CRVD-Signature";

    // Throws std::runtime_error when the PEM public key cannot be read.
    explicit SigValidationHttpInterceptor(const std::string& publicKeyPemPath);
    ~SigValidationHttpInterceptor() override;

    void InterceptRequest(MutableHttpRequest& request) override;
    void InterceptResponse(MutableHttpResponse& response) override;

    bool Verify(const std::string& body, const std::string& signatureBase64) const;

private:
    struct KeyDeleter
    {
        void operator()(evp_pkey_st* key) const;
    };
    std::unique_ptr<evp_pkey_st, KeyDeleter> m_key;
};

} // namespace vantor::common
