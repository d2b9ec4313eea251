#pragma once

#include "tools/TestCertificate.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Poco::Net
{
class HTTPServerRequest;
class HTTPServerResponse;
} // namespace Poco::Net

namespace vantor::tools
{

// How the test receiver misbehaves on the network, for the tests that prove
// an uploader fails each attempt in bounded time and memory. A hostile
// receiver stores nothing, so that every upload it met must come again.
//
// Send runs on one of the receiver's server threads; Bomb is built once, on
// first use, and is then shared read-only.
class HostileAnswer
{
public:
    enum class Mode
    {
        None,     // a well-behaved back end
        Trickle,  // headers, then one body byte every kTricklePause
        Hang,     // headers and half the body, then nothing
        LzmaBomb, // a small, correctly signed LZMA body that expands to kBombSize
        Reset,    // the connection is reset (RST) once the request is read
        WrongHost // the TLS certificate names kOtherHost, not this host
    };

    static constexpr const char* kOtherHost = "other-host.invalid";
    static constexpr std::chrono::milliseconds kTricklePause{100};
    static constexpr std::size_t kBodySize = 4096;
    // A hung answer ends after this at the latest.
    static constexpr std::chrono::seconds kLongestHang{120};
    // Far beyond what a client should accept as an upload answer, and past
    // liblzma-based limits of 64 MiB; larger ones take long to build.
    static constexpr std::size_t kBombSize = 96 * 1024 * 1024;

    // "none", "trickle", "hang", "lzma-bomb", "reset", "wrong-host"; Parse
    // throws std::invalid_argument for another word.
    static Mode Parse(std::string_view name);
    static const char* Name(Mode mode);

    // Sleeps up to the pause; false when the receiver wants the handler to
    // end (it stops or its mode changed).
    using Wait = std::function<bool(std::chrono::milliseconds)>;

    // Answers a request whose body has been read, in the mode's way
    // (Trickle, Hang, LzmaBomb, Reset); returns when the client has gone,
    // the body is complete or wait says so.
    static void Send(Mode mode, Poco::Net::HTTPServerRequest& request,
                     Poco::Net::HTTPServerResponse& response, const TestCertificate& certificate,
                     const Wait& wait);

    // kBombSize zero bytes, LZMA-compressed (some 15 KB); the first call
    // takes seconds.
    static const std::string& Bomb();
};

} // namespace vantor::tools
