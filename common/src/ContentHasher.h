#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vantor::common
{

// Lower-case hexadecimal digests through OpenSSL's EVP interface.
class ContentHasher
{
public:
    enum class Algorithm
    {
        Md5,
        Sha1,
        Sha256
    };

    static std::string HashData(std::string_view data, Algorithm algorithm);

    // Digest of the file's content, read in blocks; a file larger than
    // maxSize is refused. Throws std::runtime_error on any failure.
    static std::string HashFile(const std::string& path, Algorithm algorithm, std::uint64_t maxSize);
};

} // namespace vantor::common
