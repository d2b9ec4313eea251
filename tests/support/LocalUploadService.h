#pragma once

// An HTTP service that uploads, LZMA-compressed and signed, to a local test
// receiver in this process: for the tests of the upload schedules.

#include "common/HttpService.h"
#include "tests/support/TempDir.h"
#include "tools/TestReceiver.h"

#include <memory>
#include <string>

namespace vantor::test
{

class LocalUploadService
{
public:
    // Payloads go under dir/out, the certificate and the key into dir.
    explicit LocalUploadService(const TempDir& dir);
    ~LocalUploadService();
    LocalUploadService(const LocalUploadService&) = delete;
    LocalUploadService& operator=(const LocalUploadService&) = delete;

    tools::TestReceiver& Receiver() { return *m_receiver; }
    const std::shared_ptr<common::HttpService>& Service() const { return m_service; }

private:
    std::unique_ptr<tools::TestReceiver> m_receiver;
    std::shared_ptr<common::HttpService> m_service;
};

} // namespace vantor::test
