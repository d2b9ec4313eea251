#include "common/util/Sha256.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <stdexcept>

namespace vantor::util
{

std::string Sha256Hex(std::string_view data)
{
    unsigned char digest[SHA256_DIGEST_LENGTH];
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1)
    {
        throw std::runtime_error("Sha256Hex: digest failed");
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out(2 * length, '\0');
    for (unsigned int i = 0; i < length; ++i)
    {
        out[2 * i] = kHex[digest[i] >> 4];
        out[2 * i + 1] = kHex[digest[i] & 0x0f];
    }
    return out;
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
