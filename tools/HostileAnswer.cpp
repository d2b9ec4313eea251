#include "tools/HostileAnswer.h"

#include "common/util/Lzma.h"

#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/StreamSocket.h>

#include <array>
#include <ostream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace vantor::tools
{
namespace
{

using Mode = HostileAnswer::Mode;

constexpr std::array<std::pair<Mode, const char*>, 6> kNames{{{Mode::None, "none"},
                                                              {Mode::Trickle, "trickle"},
                                                              {Mode::Hang, "hang"},
                                                              {Mode::LzmaBomb, "lzma-bomb"},
                                                              {Mode::Reset, "reset"},
                                                              {Mode::WrongHost, "wrong-host"}}};

// Closes the connection with a reset: no linger, so the kernel sends RST
// instead of FIN. The descriptor is replaced by an unconnected socket rather
// than closed, so that the server's own later close cannot hit a descriptor
// number that another connection got meanwhile.
void Reset(Poco::Net::HTTPServerRequest& request)
{
    auto& socket = dynamic_cast<Poco::Net::HTTPServerRequestImpl&>(request).socket();
    const int fd = socket.impl()->sockfd();
    const linger abortive{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    const int placeholder = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (placeholder >= 0)
    {
        ::dup2(placeholder, fd);
        ::close(placeholder);
    }
}

} // namespace

HostileAnswer::Mode HostileAnswer::Parse(std::string_view name)
{
    for (const auto& [mode, text] : kNames)
    {
        if (name == text)
        {
            return mode;
        }
    }
    throw std::invalid_argument("unknown hostile mode: " + std::string(name));
}

const char* HostileAnswer::Name(Mode mode)
{
    for (const auto& [m, text] : kNames)
    {
        if (m == mode)
        {
            return text;
        }
    }
    return "?";
}

const std::string& HostileAnswer::Bomb()
{
    static const std::string bomb = util::LzmaCompress(std::string(kBombSize, '\0'));
    return bomb;
}

void HostileAnswer::Send(Mode mode, Poco::Net::HTTPServerRequest& request,
                         Poco::Net::HTTPServerResponse& response, const TestCertificate& certificate,
                         const Wait& wait)
{
    if (mode == Mode::Reset)
    {
        Reset(request);
        return;
    }
    response.set("C-SRV", "test-receiver");
    response.setContentType("application/json");
    if (mode == Mode::LzmaBomb)
    {
        const std::string& bomb = Bomb();
        response.set("Content-Encoding", "LZMA");
        // Signed like a real answer, so that only its size can refuse it.
        response.set("X-CRVD-Signature", certificate.Sign(bomb));
        response.setContentLength(static_cast<std::streamsize>(bomb.size()));
        response.send().write(bomb.data(), static_cast<std::streamsize>(bomb.size()));
        return;
    }
    response.setContentLength(static_cast<std::streamsize>(kBodySize));
    std::ostream& out = response.send();
    out.flush();
    if (mode == Mode::Hang)
    {
        out << std::string(kBodySize / 2, ' ') << std::flush;
        for (auto held = std::chrono::seconds(0); held < kLongestHang && wait(std::chrono::seconds(1));
             held += std::chrono::seconds(1))
        {
        }
        return;
    }
    for (std::size_t sent = 0; sent < kBodySize && out && wait(kTricklePause); ++sent)
    {
        out.put(' ').flush();
    }
}

} // namespace vantor::tools
