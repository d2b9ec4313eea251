#pragma once

#include "common/HttpHeaders.h"
#include "ioc/protobuf/IocEvents.pb.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace vantor::tools
{

// What the test receiver checks of an IOC upload:
//   POST <prefix>/linuxagentevent/v1/customer/<customer id>/agent/<agent id>
// with Content-Type "application/octet-stream", the ids of the path equal
// to the C-CUSTID and C-CLNTID headers, and a body (after LZMA) that parses
// as one IoCEvent batch. Sequence numbers must rise from batch to batch of
// one agent; a number that does not is counted and reported, but the batch
// is still taken (refusing it would make the agent send it for ever).
//
// Thread-safe.
class IocBatchChecker
{
public:
    struct Result
    {
        // Why the upload is refused; empty when it is taken.
        std::string rejection;
        // (customer, agent) of the route.
        std::pair<std::string, std::string> ids;
        ::com::corvid::ioc::model::proto::event::IoCEvent batch;
    };

    // The customer and agent ids of an IOC route; nothing for another path.
    static std::optional<std::pair<std::string, std::string>> ParseRoute(const std::string& path);

    // Checks one upload without taking it.
    static Result Check(const std::string& path, const common::HttpHeaders& headers,
                        const std::string& payload);
    // Takes a checked batch that is stored; answers a warning when its
    // sequence number did not rise, else empty. (A batch refused for another
    // reason is not taken, so that its retry is no repeat.)
    std::string Take(const Result& result);

    // Batches whose number did not rise.
    std::size_t SequenceErrors() const;

private:
    mutable std::mutex m_mutex;
    // (customer, agent) -> the last sequence number taken.
    std::map<std::pair<std::string, std::string>, uint64_t> m_last;
    std::size_t m_errors = 0;
};

} // namespace vantor::tools
