#pragma once

#include "common/MutableHttpResponse.h"

#include <cstdint>
#include <fstream>
#include <string>

namespace vantor::common
{

// Streams the body into a file instead of memory (downloads). Interceptors
// would need the whole body, so they are refused for such responses.
class OnDiskHttpResponse : public MutableHttpResponse
{
public:
    // append: keep what the file already holds (ranged downloads continue
    // a file chunk by chunk). Throws std::runtime_error when the file
    // cannot be opened.
    explicit OnDiskHttpResponse(std::string path, bool append = false);

    const std::string& FilePath() const { return m_path; }
    // Bytes written by this response (not counting an appended-to prefix).
    uint64_t BytesWritten() const { return m_written; }

    std::string Payload() const override;
    bool SupportsInterceptors() const override { return false; }

    static constexpr const char* kInterceptorsRefused =
        "OnDiskHttpResponse does not support HTTP interceptors";

protected:
    void DoAppend(std::string_view data) override;
    void DoClearPayload() override;
    void DoFinalize() override;

private:
    std::string m_path;
    std::ofstream m_file;
    std::streampos m_start = 0;
    uint64_t m_written = 0;
};

} // namespace vantor::common
