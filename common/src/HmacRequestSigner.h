#pragma once

#include "common/HttpHeaders.h"
#include "common/MutableHttpRequest.h"

#include <chrono>
#include <string>
#include <string_view>

namespace vantor::common
{

// Authenticates each request to the back end with an HMAC-SHA256 keyed by
// the agent's shared secret.
//
// Signed text (fields joined by "\n", no trailing newline):
//   method ("POST"), path and query as sent ("/upload/fim?x=1"),
//   X-CRVD-Timestamp value, C-CUSTID value, C-CLNTID value,
//   lower-case hex SHA-256 of the body as sent (after compression).
// Headers added:
//   X-CRVD-Timestamp: seconds since the Unix epoch, decimal
//   X-CRVD-Authorization: "CRVD-HMAC-SHA256 Credential=<agent id>, Signature=<base64 of the MAC>"
// The host name is not signed (proxies and fail-over may change the route,
// never the path); the timestamp bounds replays to the verifier's window.
//
// The key is the content of a file written by the host agent's key store,
// by default <agent_install_path>/keys/edr_hmac.key; trailing white space
// (a final newline) is not part of the key.
class HmacRequestSigner
{
public:
    static constexpr const char* kAuthorizationHeader = "X-CRVD-Authorization";
    static constexpr const char* kTimestampHeader = "X-CRVD-Timestamp";
    static constexpr const char* kScheme = "CRVD-HMAC-SHA256";
    static constexpr const char* kDefaultKeyFile = "keys/edr_hmac.key";

    // Throws std::runtime_error "HmacRequestSigner: cannot read key file <path>"
    // or "HmacRequestSigner: key file <path> is empty".
    explicit HmacRequestSigner(const std::string& keyFilePath);

    // The key in a key file, without trailing white space; the same errors.
    static std::string ReadKeyFile(const std::string& keyFilePath);

    // Adds (replacing) the two signature headers. Reads C-CUSTID and C-CLNTID
    // from the request, so it runs after they are set.
    void Sign(MutableHttpRequest& request, std::chrono::system_clock::time_point now) const;

    // The text that the MAC covers.
    static std::string CanonicalText(std::string_view method, std::string_view pathAndQuery,
                                     std::string_view timestamp, std::string_view customerId,
                                     std::string_view agentId, std::string_view body);

    // Checks a received request; returns "" when valid, otherwise the reason.
    static std::string Verify(std::string_view key, std::string_view method, std::string_view pathAndQuery,
                              const HttpHeaders& headers, std::string_view body,
                              std::chrono::system_clock::time_point now, std::chrono::seconds maxSkew);

    // "/path?query" of an absolute URL, as libcurl sends it.
    static std::string PathAndQuery(const std::string& url);

private:
    std::string m_key;
};

} // namespace vantor::common
