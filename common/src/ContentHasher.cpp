#include "common/ContentHasher.h"

namespace vantor::common
{

std::string ContentHasher::HashData(std::string_view data, Algorithm algorithm)
{
    return util::Digest::HexOf(algorithm, data);
}

std::string ContentHasher::HashFile(const std::string& path, Algorithm algorithm, std::uint64_t maxSize)
{
    return util::Digest::HexOfFile(algorithm, path, maxSize);
}

} // namespace vantor::common
