#include "tools/TestReceiver.h"

#include "common/HmacRequestSigner.h"
#include "common/util/Json.h"
#include "common/util/Lzma.h"
#include "tools/IocBatchPrinter.h"
#include "tools/UploadCheck.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <strings.h>

namespace vantor::tools
{
namespace
{

constexpr std::size_t kMaxBody = 64 * 1024 * 1024;

unsigned ToUnsigned(const std::string& text)
{
    unsigned value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

} // namespace

class TestReceiver::Handler : public Poco::Net::HTTPRequestHandler
{
public:
    explicit Handler(TestReceiver& receiver)
        : m_receiver(receiver)
    {
    }
    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override
    {
        m_receiver.Handle(request, response);
    }

private:
    TestReceiver& m_receiver;
};

class TestReceiver::Factory : public Poco::Net::HTTPRequestHandlerFactory
{
public:
    explicit Factory(TestReceiver& receiver)
        : m_receiver(receiver)
    {
    }
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
    {
        return new Handler(m_receiver);
    }

private:
    TestReceiver& m_receiver;
};

TestReceiver::TestReceiver(Options options)
    : m_options(std::move(options))
{
    if (m_options.outputDir.empty() || m_options.certDir.empty())
    {
        throw std::invalid_argument("TestReceiver: outputDir and certDir are required");
    }
    m_certificate = TestCertificate::Create(m_options.certDir);
    m_otherHost = m_certificate.IssueFor(m_options.certDir, "other-host", HostileAnswer::kOtherHost);
    m_hostility = m_options.hostility;
}

TestReceiver::~TestReceiver()
{
    Stop();
}

void TestReceiver::Start()
{
    // A hostile answer writes to clients that have given up.
    std::signal(SIGPIPE, SIG_IGN);
    Poco::Net::initializeSSL();
    const TestCertificate& certificate =
        Hostility() == HostileAnswer::Mode::WrongHost ? m_otherHost : m_certificate;
    Poco::Net::Context::Ptr context =
        new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, certificate.keyPath, certificate.certPath,
                               "", Poco::Net::Context::VERIFY_NONE);
    // A restarted receiver listens on its first port again, so that clients
    // configured with its URL reach it once it is back.
    const uint16_t port = m_port != 0 ? m_port : m_options.port;
    Poco::Net::SecureServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", port), 64, context);
    m_port = socket.address().port();
    auto* params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(16);
    params->setKeepAlive(true);
    params->setTimeout(Poco::Timespan(10, 0));
    {
        std::lock_guard lock(m_mutex);
        m_stopping = false;
    }
    m_server = std::make_unique<Poco::Net::HTTPServer>(new Factory(*this), socket, params);
    m_server->start();
}

void TestReceiver::Stop()
{
    if (!m_server)
    {
        return;
    }
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        ++m_generation;
    }
    m_cv.notify_all();
    m_server->stopAll(true);
    m_server.reset();
}

bool TestReceiver::IsStatusRoute(const std::string& path)
{
    const std::string_view route("/status");
    return path.size() >= route.size() && path.compare(path.size() - route.size(), route.size(), route) == 0;
}

std::string TestReceiver::Url(const std::string& path) const
{
    return "https://127.0.0.1:" + std::to_string(m_port) + path;
}

void TestReceiver::FailNext(unsigned count, int status)
{
    std::lock_guard lock(m_mutex);
    m_failCount = count;
    m_failStatus = status;
}

void TestReceiver::StallNext(unsigned count, std::chrono::milliseconds duration)
{
    std::lock_guard lock(m_mutex);
    m_stallCount = count;
    m_stallDuration = duration;
}

void TestReceiver::DropServerHeaderNext(unsigned count)
{
    std::lock_guard lock(m_mutex);
    m_dropCount = count;
}

void TestReceiver::SetHostility(HostileAnswer::Mode mode)
{
    if (mode == HostileAnswer::Mode::LzmaBomb)
    {
        HostileAnswer::Bomb(); // built before it is due
    }
    HostileAnswer::Mode before;
    {
        std::lock_guard lock(m_mutex);
        before = m_hostility;
        m_hostility = mode;
        ++m_generation;
    }
    m_cv.notify_all();
    // Another certificate needs a new server, and no connection made under
    // the old one may stay open.
    if ((before == HostileAnswer::Mode::WrongHost) != (mode == HostileAnswer::Mode::WrongHost) && m_server)
    {
        Stop();
        Start();
    }
}

HostileAnswer::Mode TestReceiver::Hostility() const
{
    std::lock_guard lock(m_mutex);
    return m_hostility;
}

void TestReceiver::BadSignatureNext(unsigned count)
{
    std::lock_guard lock(m_mutex);
    m_badSignatureCount = count;
}

std::vector<TestReceiver::Received> TestReceiver::Requests() const
{
    std::lock_guard lock(m_mutex);
    return m_requests;
}

std::size_t TestReceiver::RequestCount() const
{
    std::lock_guard lock(m_mutex);
    return m_requests.size();
}

std::size_t TestReceiver::StoredCount() const
{
    std::lock_guard lock(m_mutex);
    return m_stored;
}

bool TestReceiver::WaitForRequests(std::size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    return m_cv.wait_for(lock, timeout, [&] { return m_requests.size() >= count; });
}

std::string TestReceiver::DownloadContent(std::size_t size)
{
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
    {
        content[i] = static_cast<char>((i * 7 + i / 251) % 256);
    }
    return content;
}

std::string TestReceiver::Check(const Received& received, const std::string& body) const
{
    if (std::string refusal = UploadCheck::FixedHeaders(received.headers, body); !refusal.empty())
    {
        return refusal;
    }
    if (!m_options.customerId.empty() && received.headers.Get("C-CUSTID") != m_options.customerId)
    {
        return "unexpected C-CUSTID";
    }
    if (!m_options.agentId.empty() && received.headers.Get("C-CLNTID") != m_options.agentId)
    {
        return "unexpected C-CLNTID";
    }
    if (!m_options.hmacKey.empty())
    {
        const std::string reason = common::HmacRequestSigner::Verify(
            m_options.hmacKey, received.method, received.uri, received.headers, body,
            std::chrono::system_clock::now(), std::chrono::seconds(300));
        if (!reason.empty())
        {
            return "HMAC: " + reason;
        }
    }
    return {};
}

void TestReceiver::Answer(Poco::Net::HTTPServerResponse& response, int status, std::string body,
                          AnswerStyle style)
{
    response.setStatusAndReason(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(status));
    if (!style.dropServerHeader)
    {
        response.set("C-SRV", "test-receiver");
    }
    if (style.compress)
    {
        body = util::LzmaCompress(body);
        response.set("Content-Encoding", "LZMA");
    }
    if (status >= 200 && status < 300)
    {
        // A signature over other bytes is as wrong as a forged one.
        response.set("X-CRVD-Signature", m_certificate.Sign(style.badSignature ? body + " " : body));
    }
    response.setContentType("application/json");
    response.setContentLength(static_cast<std::streamsize>(body.size()));
    response.send().write(body.data(), static_cast<std::streamsize>(body.size()));
}

void TestReceiver::Handle(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
{
    Received received;
    received.method = request.getMethod();
    received.uri = request.getURI();
    for (const auto& [name, value] : request)
    {
        try
        {
            received.headers.Append(name, value);
        }
        catch (const std::invalid_argument&)
        {
        }
    }
    std::string body;
    {
        std::string chunk(64 * 1024, '\0');
        auto& in = request.stream();
        while (in && body.size() <= kMaxBody)
        {
            in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            body.append(chunk.data(), static_cast<std::size_t>(in.gcount()));
        }
    }
    received.bodySize = body.size();
    const Poco::URI uri(received.uri);

    AnswerStyle style;
    bool fail = false;
    int failStatus = 0;
    std::chrono::milliseconds stall{0};
    {
        std::lock_guard lock(m_mutex);
        if (m_dropCount > 0)
        {
            --m_dropCount;
            style.dropServerHeader = true;
        }
        if (m_stallCount > 0 && uri.getPath() != "/control")
        {
            --m_stallCount;
            stall = m_stallDuration;
        }
    }
    if (stall.count() > 0)
    {
        std::unique_lock lock(m_mutex);
        m_cv.wait_for(lock, stall, [&] { return m_stopping; });
    }
    if (uri.getPath() != "/control" && AnswerHostile(request, response, received))
    {
        return;
    }

    int status = 200;
    std::string answer;
    if (uri.getPath() == "/control")
    {
        std::lock_guard lock(m_mutex);
        for (const auto& [key, value] : uri.getQueryParameters())
        {
            if (key == "fail")
                m_failCount = ToUnsigned(value);
            else if (key == "status")
                m_failStatus = static_cast<int>(ToUnsigned(value));
            else if (key == "stall")
                m_stallCount = ToUnsigned(value);
            else if (key == "stall_ms")
                m_stallDuration = std::chrono::milliseconds(ToUnsigned(value));
            else if (key == "drop_csrv")
                m_dropCount = ToUnsigned(value);
            else if (key == "bad_signature")
                m_badSignatureCount = ToUnsigned(value);
            else if (key == "hostile")
            {
                // Takes effect for requests; a certificate only at the next
                // start (a server cannot restart itself from its handler).
                m_hostility = HostileAnswer::Parse(value);
                ++m_generation;
            }
        }
        answer = R"({"control":"ok"})";
    }
    else if (uri.getPath().rfind("/download/", 0) == 0)
    {
        const std::string content = DownloadContent(ToUnsigned(uri.getPath().substr(10)));
        std::size_t first = 0;
        std::size_t last = content.empty() ? 0 : content.size() - 1;
        const std::string range = request.get("Range", "");
        if (!range.empty() && !content.empty() &&
            std::sscanf(range.c_str(), "bytes=%zu-%zu", &first, &last) == 2 && first <= last &&
            first < content.size())
        {
            last = std::min(last, content.size() - 1);
            response.set("Content-Range", "bytes " + std::to_string(first) + "-" + std::to_string(last) +
                                              "/" + std::to_string(content.size()));
            status = 206;
        }
        answer = content.substr(first, last - first + 1);
    }
    else
    {
        {
            std::lock_guard lock(m_mutex);
            if (m_failCount > 0)
            {
                --m_failCount;
                fail = true;
                failStatus = m_failStatus;
            }
        }
        received.rejection = Check(received, body);
        if (received.rejection.empty())
        {
            const auto encoding = received.headers.Get("Content-Encoding");
            if (!encoding || strcasecmp(encoding->c_str(), "LZMA") != 0)
            {
                if (!body.empty())
                {
                    received.rejection = "payload is not LZMA-compressed";
                }
            }
            else
            {
                try
                {
                    received.payload = util::LzmaDecompress(body);
                }
                catch (const std::exception& e)
                {
                    received.rejection = std::string("LZMA: ") + e.what();
                }
            }
        }
        const bool statusRoute = IsStatusRoute(uri.getPath());
        const bool iocRoute = IocBatchChecker::ParseRoute(uri.getPath()).has_value();
        if (received.rejection.empty() && statusRoute)
        {
            received.rejection = UploadCheck::Status(received.headers, received.payload);
        }
        if (received.rejection.empty() && !fail && iocRoute)
        {
            CheckIocBatch(uri.getPath(), received);
        }
        if (fail)
        {
            status = failStatus;
            answer = R"({"error":"injected failure"})";
        }
        else if (!received.rejection.empty())
        {
            status = 400;
            answer = R"({"error":"rejected"})";
        }
        else
        {
            std::size_t number = 0;
            {
                std::lock_guard lock(m_mutex);
                number = ++m_stored;
            }
            std::ofstream out(m_options.outputDir + "/" + std::to_string(number) +
                                  (statusRoute ? kStatusSuffix
                                   : iocRoute  ? kIocSuffix
                                               : kPayloadSuffix),
                              std::ios::binary);
            out.write(received.payload.data(), static_cast<std::streamsize>(received.payload.size()));
            received.kind = PayloadKind(statusRoute, iocRoute, received);
            answer = R"({"stored":)" + std::to_string(number) + "}";
            const auto accept = received.headers.Get("Accept-Encoding");
            style.compress = accept && strcasecmp(accept->c_str(), "LZMA") == 0;
            std::lock_guard lock(m_mutex);
            if (m_badSignatureCount > 0)
            {
                --m_badSignatureCount;
                style.badSignature = true;
            }
        }
    }
    received.status = status;
    LogRequest(received);
    {
        std::lock_guard lock(m_mutex);
        m_requests.push_back(std::move(received));
    }
    m_cv.notify_all();
    Answer(response, status, std::move(answer), style);
}

bool TestReceiver::AnswerHostile(Poco::Net::HTTPServerRequest& request,
                                 Poco::Net::HTTPServerResponse& response, Received& received)
{
    HostileAnswer::Mode mode;
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(m_mutex);
        mode = m_hostility;
        generation = m_generation;
    }
    if (mode == HostileAnswer::Mode::None || mode == HostileAnswer::Mode::WrongHost)
    {
        return false;
    }
    received.rejection = std::string("hostile: ") + HostileAnswer::Name(mode);
    LogRequest(received);
    {
        std::lock_guard lock(m_mutex);
        m_requests.push_back(received);
    }
    m_cv.notify_all();
    HostileAnswer::Send(mode, request, response, m_certificate,
                        [&](std::chrono::milliseconds pause)
                        {
                            std::unique_lock lock(m_mutex);
                            return !m_cv.wait_for(lock, pause,
                                                  [&] { return m_stopping || m_generation != generation; });
                        });
    return true;
}

std::string TestReceiver::PayloadKind(bool statusRoute, bool iocRoute, const Received& received)
{
    if (iocRoute)
    {
        return "ioc events: " + std::to_string(received.iocLines.size());
    }
    rapidjson::Document document;
    const char* member = statusRoute ? "status" : "events";
    if (!util::ParseJson(document, received.payload) || !document.IsObject() || !document.HasMember(member) ||
        !document[member].IsArray())
    {
        return "payload";
    }
    return std::string(statusRoute ? "status records: " : "fim documents: ") +
           std::to_string(document[member].Size());
}

std::string TestReceiver::DescribeRequest(const Received& received)
{
    std::string line = received.method + " " + Poco::URI(received.uri).getPath() + " " +
                       std::to_string(received.status) + " " + std::to_string(received.bodySize) + " bytes";
    if (!received.kind.empty())
    {
        line += ", " + received.kind;
    }
    if (!received.rejection.empty())
    {
        line += ", refused: " + received.rejection;
    }
    // A refusal's reason may quote what came in; one request stays one line.
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    return line;
}

void TestReceiver::LogRequest(const Received& received)
{
    if (m_options.printRequests)
    {
        const std::string line = DescribeRequest(received);
        std::lock_guard lock(m_mutex);
        std::cout << "request: " << line << std::endl;
    }
    if (m_options.requestLog.empty())
    {
        return;
    }
    const auto header = [&](const char* name) { return received.headers.Get(name).value_or("-"); };
    std::lock_guard lock(m_mutex);
    std::ofstream(m_options.requestLog, std::ios::app)
        << received.method << " " << received.uri << " " << received.status
        << " Content-Encoding=" << header("Content-Encoding")
        << " Accept-Encoding=" << header("Accept-Encoding")
        << (received.rejection.empty() ? "" : " refused: " + received.rejection)
        << (received.iocWarning.empty() ? "" : " ioc: " + received.iocWarning) << "\n";
}

void TestReceiver::CheckIocBatch(const std::string& path, Received& received)
{
    const auto result = IocBatchChecker::Check(path, received.headers, received.payload);
    received.rejection = result.rejection;
    if (!received.rejection.empty())
    {
        return;
    }
    received.iocWarning = m_iocBatches.Take(result);
    received.iocLines = IocBatchPrinter::Describe(result.batch);
    if (m_options.printIocEvents)
    {
        std::lock_guard lock(m_mutex);
        for (const auto& line : received.iocLines)
        {
            std::cout << line << "\n";
        }
        if (!received.iocWarning.empty())
        {
            std::cout << "warning: " << received.iocWarning << "\n";
        }
        std::cout.flush();
    }
}

} // namespace vantor::tools
