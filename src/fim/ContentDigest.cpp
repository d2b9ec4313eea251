#include "fim/ContentDigest.h"

#include <openssl/evp.h>

#include <array>

namespace vantor::fim::internal
{

void ContentDigest::ContextFree::operator()(EVP_MD_CTX* context) const
{
    EVP_MD_CTX_free(context);
}

ContentDigest::ContentDigest()
    : m_context(EVP_MD_CTX_new())
{
    if (m_context && EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1)
    {
        m_context.reset();
    }
}

ContentDigest::~ContentDigest() = default;

void ContentDigest::Update(const void* data, size_t size)
{
    if (m_context && EVP_DigestUpdate(m_context.get(), data, size) != 1)
    {
        m_context.reset();
    }
}

std::string ContentDigest::Finish()
{
    std::string hex;
    if (!m_context)
    {
        return hex;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> md{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(m_context.get(), md.data(), &length) == 1)
    {
        static constexpr char kHex[] = "0123456789abcdef";
        hex.reserve(length * 2);
        for (unsigned int i = 0; i < length; ++i)
        {
            hex.push_back(kHex[md[i] >> 4]);
            hex.push_back(kHex[md[i] & 0x0F]);
        }
    }
    m_context.reset();
    return hex;
}

} // namespace vantor::fim::internal
