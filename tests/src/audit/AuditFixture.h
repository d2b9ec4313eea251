#pragma once

// Raw audit text captured on this kernel (tests/fixtures/audit), and the
// events the audit intake builds from it.

#include "audit/AuditEventBuilder.h"
#include "audit/AuparseFeed.h"
#include "edr/LibMagicWrapper.h"

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace vantor::test
{

// Where the capture ran its workload.
inline const std::string kCaptureData = "/tmp/corvid-audit-capture/data";
inline const std::string kCaptureWorkload = "/tmp/corvid-audit-capture/bin/workload";

inline std::string AuditFixture(const std::string& name)
{
    std::ifstream in(std::string(CORVID_SOURCE_DIR) + "/tests/fixtures/audit/" + name + ".log",
                     std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::string Replace(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    {
        text.replace(at, from.size(), to);
    }
    return text;
}

// The text without the records of the given type ("PROCTITLE", ...).
inline std::string WithoutRecords(const std::string& text, const std::string& type)
{
    std::string kept;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        kept += line.starts_with("type=" + type + " ") ? "" : line + "\n";
    }
    return kept;
}

// Every event the intake builds from the text, in order.
inline audit::EventBuilder::Events BuildEvents(const std::string& text)
{
    audit::AuditEventBuilder builder(
        std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"));
    audit::AuparseFeed feed(builder);
    auto events = feed.Feed(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    for (auto& event : feed.Flush())
    {
        events.push_back(std::move(event));
    }
    return events;
}

} // namespace vantor::test
