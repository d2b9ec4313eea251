#include "common/SigValidationHttpInterceptor.h"

#include "common/Logging.h"
#include "common/util/Base64.h"
#include "common/util/Digest.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <stdexcept>

namespace vantor::common
{

void SigValidationHttpInterceptor::KeyDeleter::operator()(evp_pkey_st* key) const
{
    EVP_PKEY_free(key);
}

SigValidationHttpInterceptor::SigValidationHttpInterceptor(const std::string& publicKeyPemPath)
{
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(publicKeyPemPath.c_str(), "re"), &std::fclose);
    if (!file)
    {
        throw std::runtime_error("SigValidationHttpInterceptor: cannot open " + publicKeyPemPath);
    }
    m_key.reset(PEM_read_PUBKEY(file.get(), nullptr, nullptr, nullptr));
    if (!m_key)
    {
        throw std::runtime_error("SigValidationHttpInterceptor: invalid public key in " + publicKeyPemPath);
    }
}

SigValidationHttpInterceptor::~SigValidationHttpInterceptor() = default;

void SigValidationHttpInterceptor::InterceptRequest(MutableHttpRequest&) {}

void SigValidationHttpInterceptor::InterceptResponse(MutableHttpResponse& response)
{
    if (response.Status() < 200 || response.Status() >= 300)
    {
        return;
    }
    const auto signature = response.Headers().Get(kSignatureHeader);
    if (!signature || !Verify(response.Payload(), *signature))
    {
        EDR_LOG_ERROR("Response signature validation failed");
        throw HttpInterceptorException("Response signature validation failed");
    }
}

bool SigValidationHttpInterceptor::Verify(const std::string& body, const std::string& signatureBase64) const
{
    std::string signature;
    try
    {
        signature = util::Base64Decode(signatureBase64);
    }
    catch (const std::invalid_argument&)
    {
        return false;
    }
    const util::Digest::Context ctx = util::Digest::NewContext();
    if (EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, m_key.get()) != 1)
    {
        return false;
    }
    return EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                            signature.size(), reinterpret_cast<const unsigned char*>(body.data()),
                            body.size()) == 1;
}

} // namespace vantor::common
