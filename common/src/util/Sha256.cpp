#include "common/util/Sha256.h"

#include "common/util/Digest.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <stdexcept>

namespace vantor::util
{

std::string Sha256Hex(std::string_view data)
{
    return Digest::HexOf(Digest::Algorithm::Sha256, data);
}

std::string HmacSha256(std::string_view key, std::string_view data)
{
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(data.data()), data.size(), mac, &length) == nullptr)
    {
        throw std::runtime_error("HmacSha256: HMAC failed");
    }
    return std::string(reinterpret_cast<const char*>(mac), length);
}

} // namespace vantor::util
