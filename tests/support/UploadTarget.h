#pragma once

#include "tools/TestReceiver.h"

#include <memory>
#include <string>

namespace vantor::common
{
class HttpService;
class HttpUploader;
} // namespace vantor::common

namespace vantor::test
{

// What an upload schedule's test sends to: a local HTTPS receiver (payloads
// in dir/out, certificate in dir) and a running HTTP service that reaches
// it as the daemon's would, requests signed with a test key and compressed,
// one attempt each, as customer "cust" and agent "agent". Stops both on
// destruction.
class UploadTarget
{
public:
    static constexpr const char* kCustomerId = "cust";
    static constexpr const char* kAgentId = "agent";

    explicit UploadTarget(const std::string& dir);
    ~UploadTarget();
    UploadTarget(const UploadTarget&) = delete;
    UploadTarget& operator=(const UploadTarget&) = delete;

    tools::TestReceiver& Receiver() { return *m_receiver; }
    // An uploader over the service that tries each upload once.
    std::shared_ptr<common::HttpUploader> Uploader() const;

private:
    std::unique_ptr<tools::TestReceiver> m_receiver;
    std::shared_ptr<common::HttpService> m_service;
};

} // namespace vantor::test
