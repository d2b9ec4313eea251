#include "common/ContentHasher.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace vantor::common
{
namespace
{

const EVP_MD* Digest(ContentHasher::Algorithm algorithm)
{
    switch (algorithm)
    {
    case ContentHasher::Algorithm::Md5:
        return EVP_md5();
    case ContentHasher::Algorithm::Sha1:
        return EVP_sha1();
    case ContentHasher::Algorithm::Sha256:
        return EVP_sha256();
    }
    throw std::invalid_argument("ContentHasher: unknown algorithm");
}

struct MdCtxFree
{
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

MdCtx Begin(ContentHasher::Algorithm algorithm)
{
    MdCtx ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), Digest(algorithm), nullptr) != 1)
    {
        throw std::runtime_error("ContentHasher: digest initialisation failed");
    }
    return ctx;
}

std::string Finish(EVP_MD_CTX* ctx)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> md{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx, md.data(), &length) != 1)
    {
        throw std::runtime_error("ContentHasher: digest failed");
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex(length * 2, '0');
    for (unsigned int i = 0; i < length; ++i)
    {
        hex[2 * i] = kHex[md[i] >> 4];
        hex[2 * i + 1] = kHex[md[i] & 0xf];
    }
    return hex;
}

} // namespace

std::string ContentHasher::HashData(std::string_view data, Algorithm algorithm)
{
    MdCtx ctx = Begin(algorithm);
    if (EVP_DigestUpdate(ctx.get(), data.data(), data.size()) != 1)
    {
        throw std::runtime_error("ContentHasher: digest failed");
    }
    return Finish(ctx.get());
}

std::string ContentHasher::HashFile(const std::string& path, Algorithm algorithm, std::uint64_t maxSize)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
    {
        throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    }
    struct Closer
    {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat st
    {
    };
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
    {
        throw std::runtime_error("not a regular file: " + path);
    }
    if (static_cast<std::uint64_t>(st.st_size) > maxSize)
    {
        throw std::runtime_error("file too large: " + path);
    }
    MdCtx ctx = Begin(algorithm);
    std::array<char, 65536> buffer{};
    std::uint64_t total = 0;
    for (;;)
    {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
        }
        if (n == 0)
        {
            break;
        }
        total += static_cast<std::uint64_t>(n);
        if (total > maxSize)
        {
            throw std::runtime_error("file too large: " + path);
        }
        if (EVP_DigestUpdate(ctx.get(), buffer.data(), static_cast<size_t>(n)) != 1)
        {
            throw std::runtime_error("ContentHasher: digest failed");
        }
    }
    return Finish(ctx.get());
}

} // namespace vantor::common
