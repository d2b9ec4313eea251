#include "common/util/Digest.h"

#include "common/FileReader.h"

#include <openssl/evp.h>

#include <array>
#include <memory>
#include <stdexcept>

namespace vantor::util
{
namespace
{

struct MdFree
{
    void operator()(EVP_MD* md) const { EVP_MD_free(md); }
};

// The provider's implementation, fetched once: handing the built-in
// EVP_sha256() and friends to EVP_DigestInit_ex looks the implementation up
// again on every digest, which costs about as much as hashing a short text.
// Falls back to the built-in object when the fetch fails.
struct FetchedMd
{
    FetchedMd(const char* name, const EVP_MD* builtIn)
        : fetched(EVP_MD_fetch(nullptr, name, nullptr))
        , builtIn(builtIn)
    {
    }
    const EVP_MD* Get() const { return fetched ? fetched.get() : builtIn; }

    std::unique_ptr<EVP_MD, MdFree> fetched;
    const EVP_MD* builtIn;
};

const EVP_MD* Md(Digest::Algorithm algorithm)
{
    static_assert(static_cast<int>(Digest::Algorithm::Md5) == 0 &&
                      static_cast<int>(Digest::Algorithm::Sha256) == 2,
                  "the table follows the order of Digest::Algorithm");
    static const std::array<FetchedMd, 3> kMds{FetchedMd("MD5", EVP_md5()), FetchedMd("SHA1", EVP_sha1()),
                                               FetchedMd("SHA256", EVP_sha256())};
    const auto index = static_cast<size_t>(algorithm);
    if (index >= kMds.size())
    {
        throw std::invalid_argument("Digest: unknown algorithm");
    }
    return kMds[index].Get();
}

} // namespace

void Digest::ContextFree::operator()(EVP_MD_CTX* context) const
{
    EVP_MD_CTX_free(context);
}

Digest::Context Digest::NewContext()
{
    Context context(EVP_MD_CTX_new());
    if (!context)
    {
        throw std::runtime_error("Digest: cannot allocate a digest context");
    }
    return context;
}

Digest::Digest(Algorithm algorithm)
    : m_context(NewContext())
{
    if (EVP_DigestInit_ex(m_context.get(), Md(algorithm), nullptr) != 1)
    {
        throw std::runtime_error("Digest: digest initialisation failed");
    }
}

void Digest::Update(std::string_view data)
{
    if (m_finished)
    {
        throw std::logic_error("Digest: Update after Finish");
    }
    if (EVP_DigestUpdate(m_context.get(), data.data(), data.size()) != 1)
    {
        throw std::runtime_error("Digest: digest failed");
    }
}

std::string Digest::Finish()
{
    if (m_finished)
    {
        throw std::logic_error("Digest: Finish called twice");
    }
    m_finished = true;
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(m_context.get(), md, &length) != 1)
    {
        throw std::runtime_error("Digest: digest failed");
    }
    return std::string(reinterpret_cast<const char*>(md), length);
}

std::string Digest::FinishHex()
{
    return Hex(Finish());
}

std::string Digest::Hex(std::string_view bytes)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex(bytes.size() * 2, '0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        hex[2 * i] = kHex[byte >> 4];
        hex[2 * i + 1] = kHex[byte & 0x0f];
    }
    return hex;
}

std::string Digest::HexOf(Algorithm algorithm, std::string_view data)
{
    Digest digest(algorithm);
    digest.Update(data);
    return digest.FinishHex();
}

std::string Digest::HexOfFile(Algorithm algorithm, const std::string& path, std::uint64_t maxSize)
{
    common::FileReader reader(path, common::FileReader::Links::Follow);
    reader.RequireAtMost(maxSize);
    Digest digest(algorithm);
    reader.ForEachChunk(
        [&digest](std::string_view chunk)
        {
            digest.Update(chunk);
            return true;
        },
        maxSize);
    return digest.FinishHex();
}

} // namespace vantor::util
