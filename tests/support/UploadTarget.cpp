#include "tests/support/UploadTarget.h"

#include "common/HmacRequestSigner.h"
#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/LzmaHttpInterceptor.h"

#include <filesystem>
#include <fstream>

namespace vantor::test
{

UploadTarget::UploadTarget(const std::string& dir)
{
    using namespace std::chrono_literals;
    std::filesystem::create_directories(dir + "/out");
    std::ofstream(dir + "/hmac.key") << "upload-test-key\n";
    tools::TestReceiver::Options options;
    options.outputDir = dir + "/out";
    options.certDir = dir;
    options.hmacKey = "upload-test-key";
    options.customerId = kCustomerId;
    options.agentId = kAgentId;
    m_receiver = std::make_unique<tools::TestReceiver>(options);
    m_receiver->Start();

    common::HttpServiceSettings settings;
    settings.connectionTimeout = 2s;
    settings.requestTimeout = 3s;
    settings.caCertPath = m_receiver->Certificate().certPath;
    settings.useSystemProxy = false;
    settings.retryAttempts = 0;
    settings.customerId = kCustomerId;
    settings.agentId = kAgentId;
    m_service = std::make_shared<common::HttpService>(
        settings, std::make_shared<common::HmacRequestSigner>(dir + "/hmac.key"));
    m_service->AddInterceptor(std::make_shared<common::LzmaHttpInterceptor>());
    m_service->Start();
}

UploadTarget::~UploadTarget()
{
    m_service->Stop();
    m_receiver.reset();
}

std::shared_ptr<common::HttpUploader> UploadTarget::Uploader() const
{
    return std::make_shared<common::HttpUploader>(m_service, 1);
}

} // namespace vantor::test
