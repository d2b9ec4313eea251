#pragma once

#include "common/util/Digest.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vantor::common
{

// Lower-case hexadecimal digests of data and files: the older spelling of
// util::Digest's one-shot forms, kept for the capture code that names it.
class ContentHasher
{
public:
    using Algorithm = util::Digest::Algorithm;

    static std::string HashData(std::string_view data, Algorithm algorithm);

    // Digest of the file's content, read in blocks; a file larger than
    // maxSize is refused. Throws std::runtime_error on any failure.
    static std::string HashFile(const std::string& path, Algorithm algorithm, std::uint64_t maxSize);
};

} // namespace vantor::common
