#include "tests/support/LocalUploadService.h"

#include "common/HmacRequestSigner.h"
#include "common/LzmaHttpInterceptor.h"

#include <filesystem>
#include <fstream>

namespace vantor::test
{

using namespace std::chrono_literals;

namespace
{
constexpr const char* kKey = "upload-test-key";
} // namespace

LocalUploadService::LocalUploadService(const TempDir& dir)
{
    std::filesystem::create_directories(dir.File("out"));
    std::ofstream(dir.File("hmac.key")) << kKey << "\n";
    tools::TestReceiver::Options options;
    options.outputDir = dir.File("out");
    options.certDir = dir.Path();
    options.hmacKey = kKey;
    m_receiver = std::make_unique<tools::TestReceiver>(options);
    m_receiver->Start();

    common::HttpServiceSettings settings;
    settings.connectionTimeout = 2s;
    settings.requestTimeout = 3s;
    settings.caCertPath = m_receiver->Certificate().certPath;
    settings.useSystemProxy = false;
    settings.retryAttempts = 0;
    settings.customerId = "cust";
    settings.agentId = "agent";
    m_service = std::make_shared<common::HttpService>(
        settings, std::make_shared<common::HmacRequestSigner>(dir.File("hmac.key")));
    m_service->AddInterceptor(std::make_shared<common::LzmaHttpInterceptor>());
    m_service->Start();
}

LocalUploadService::~LocalUploadService()
{
    m_service->Stop();
    m_receiver.reset();
}

} // namespace vantor::test
