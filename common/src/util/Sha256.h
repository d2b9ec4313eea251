#pragma once

#include <string>
#include <string_view>

namespace vantor::util
{

// Lower-case hexadecimal SHA-256 digest: util::Digest::HexOf(Sha256, data).
std::string Sha256Hex(std::string_view data);

// Raw HMAC-SHA256 (32 bytes) of data under key (OpenSSL).
std::string HmacSha256(std::string_view key, std::string_view data);

} // namespace vantor::util
