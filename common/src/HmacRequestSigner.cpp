#include "common/HmacRequestSigner.h"

#include "common/FileReader.h"
#include "common/util/Base64.h"
#include "common/util/Digest.h"
#include "common/util/Sha256.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <cctype>
#include <charconv>
#include <memory>
#include <stdexcept>

namespace vantor::common
{
namespace
{

// A key is a few dozen bytes; anything this large is no key file.
constexpr std::uint64_t kMaxKeyFileSize = 64 * 1024;

std::string Authorization(std::string_view key, std::string_view agentId, std::string_view canonical)
{
    std::string value = HmacRequestSigner::kScheme;
    value += " Credential=";
    value += agentId;
    value += ", Signature=";
    value += util::Base64Encode(util::HmacSha256(key, canonical));
    return value;
}

} // namespace

HmacRequestSigner::HmacRequestSigner(const std::string& keyFilePath)
    : m_key(ReadKeyFile(keyFilePath))
{
}

std::string HmacRequestSigner::ReadKeyFile(const std::string& keyFilePath)
{
    std::string key;
    try
    {
        FileReader reader(keyFilePath, FileReader::Links::Follow);
        reader.RequireAtMost(kMaxKeyFileSize);
        reader.ReadUpTo(key, reader.Size());
    }
    catch (const FileReadException& e)
    {
        throw std::runtime_error("HmacRequestSigner: cannot read key file " + keyFilePath + " (" + e.what() +
                                 ")");
    }
    while (!key.empty() && std::isspace(static_cast<unsigned char>(key.back())))
    {
        key.pop_back();
    }
    if (key.empty())
    {
        throw std::runtime_error("HmacRequestSigner: key file " + keyFilePath + " is empty");
    }
    return key;
}

std::string HmacRequestSigner::CanonicalText(std::string_view method, std::string_view pathAndQuery,
                                             std::string_view timestamp, std::string_view customerId,
                                             std::string_view agentId, std::string_view body)
{
    std::string text;
    text.reserve(method.size() + pathAndQuery.size() + timestamp.size() + customerId.size() + agentId.size() +
                 70);
    text.append(method).append("\n");
    text.append(pathAndQuery).append("\n");
    text.append(timestamp).append("\n");
    text.append(customerId).append("\n");
    text.append(agentId).append("\n");
    text.append(util::Digest::HexOf(util::Digest::Algorithm::Sha256, body));
    return text;
}

void HmacRequestSigner::Sign(MutableHttpRequest& request, std::chrono::system_clock::time_point now) const
{
    const std::string timestamp =
        std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count());
    const std::string customerId = request.Headers().Get("C-CUSTID").value_or("");
    const std::string agentId = request.Headers().Get("C-CLNTID").value_or("");
    const std::string canonical = CanonicalText(ToString(request.Method()), PathAndQuery(request.Url()),
                                                timestamp, customerId, agentId, request.Payload());
    request.AddHeader(kTimestampHeader, timestamp);
    request.AddHeader(kAuthorizationHeader, Authorization(m_key, agentId, canonical));
}

std::string HmacRequestSigner::Verify(std::string_view key, std::string_view method,
                                      std::string_view pathAndQuery, const HttpHeaders& headers,
                                      std::string_view body, std::chrono::system_clock::time_point now,
                                      std::chrono::seconds maxSkew)
{
    const auto timestamp = headers.Get(kTimestampHeader);
    const auto authorization = headers.Get(kAuthorizationHeader);
    if (!timestamp || !authorization)
    {
        return "missing signature headers";
    }
    long long seconds = 0;
    const auto [end, ec] = std::from_chars(timestamp->data(), timestamp->data() + timestamp->size(), seconds);
    if (ec != std::errc() || end != timestamp->data() + timestamp->size())
    {
        return "malformed timestamp";
    }
    const auto sent = std::chrono::system_clock::time_point(std::chrono::seconds(seconds));
    if (sent > now + maxSkew || sent < now - maxSkew)
    {
        return "timestamp outside the allowed window";
    }
    const std::string agentId = headers.Get("C-CLNTID").value_or("");
    const std::string expected = Authorization(
        key, agentId,
        CanonicalText(method, pathAndQuery, *timestamp, headers.Get("C-CUSTID").value_or(""), agentId, body));
    if (expected.size() != authorization->size() ||
        CRYPTO_memcmp(expected.data(), authorization->data(), expected.size()) != 0)
    {
        return "signature mismatch";
    }
    return {};
}

std::string HmacRequestSigner::PathAndQuery(const std::string& url)
{
    std::unique_ptr<CURLU, void (*)(CURLU*)> handle(curl_url(), &curl_url_cleanup);
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
    {
        throw std::invalid_argument("HmacRequestSigner: invalid URL " + url);
    }
    std::string result;
    char* part = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_PATH, &part, 0) == CURLUE_OK && part != nullptr)
    {
        result = part;
        curl_free(part);
    }
    if (result.empty())
    {
        result = "/";
    }
    part = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_QUERY, &part, 0) == CURLUE_OK && part != nullptr)
    {
        result.append("?").append(part);
        curl_free(part);
    }
    return result;
}

} // namespace vantor::common
