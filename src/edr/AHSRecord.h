#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vantor::edr
{

// What a health-status record is about. Status codes are grouped by type:
// the thousands of a code are its type (1xxx configuration, 2xxx upload, ...),
// so a type is never stored apart from its code and the formatter's filtered
// select picks one type by a code range.
enum class AHSRecordType : int64_t
{
    Configuration = 1,
    Upload = 2,
    Loss = 3,
    ResourceLimit = 4,
    KernelRules = 5
};

// How the daemon stands after what the record tells (the State column).
enum class AHSState : int64_t
{
    Ok = 0,
    Degraded = 1,
    Failed = 2
};

// The status codes the daemon writes.
namespace AHSStatusCode
{
inline constexpr int64_t kConfigLoaded = 1000;
inline constexpr int64_t kConfigRefused = 1001;
inline constexpr int64_t kManifestRefused = 1002;
inline constexpr int64_t kComponentFailed = 1003;

inline constexpr int64_t kUploadSucceeded = 2000;
inline constexpr int64_t kUploadFailed = 2001;

inline constexpr int64_t kKernelLost = 3001;
inline constexpr int64_t kChannelOverflow = 3002;
inline constexpr int64_t kChannelDecodeDropped = 3003;
inline constexpr int64_t kParserQueueDropped = 3004;
inline constexpr int64_t kIntakeUnsupported = 3005;
inline constexpr int64_t kIntakeMalformed = 3006;
inline constexpr int64_t kProcessingDropped = 3007;
inline constexpr int64_t kIocQueueDropped = 3008;
inline constexpr int64_t kSpoolEvicted = 3009;
inline constexpr int64_t kContentUnreadable = 3010;
inline constexpr int64_t kDocumentOverflow = 3011;
inline constexpr int64_t kDocumentFailed = 3012;
inline constexpr int64_t kStatusEvicted = 3013;
inline constexpr int64_t kIocBatchLost = 3014;

inline constexpr int64_t kCpuPaused = 4001;
inline constexpr int64_t kMemoryStrike = 4002;
inline constexpr int64_t kMemoryShutdown = 4003;

inline constexpr int64_t kRulesReinstalled = 5001;
} // namespace AHSStatusCode

// What a record is about: the component and the place, dotted.
namespace AHSContext
{
inline constexpr const char* kDaemonConfig = "edr.config";
inline constexpr const char* kFimConfig = "fim.config";
inline constexpr const char* kFimManifest = "fim.manifest";
inline constexpr const char* kIocComponent = "ioc.component";
inline constexpr const char* kFimUpload = "fim.upload";
inline constexpr const char* kIocUpload = "ioc.upload";
inline constexpr const char* kStatusUpload = "status.upload";
inline constexpr const char* kKernelAudit = "audit.kernel";
inline constexpr const char* kKernelChannel = "audit.channel";
inline constexpr const char* kParserQueue = "audit.parser.queue";
inline constexpr const char* kIntake = "audit.intake";
inline constexpr const char* kProcessing = "audit.processing";
inline constexpr const char* kIocQueue = "ioc.queue";
inline constexpr const char* kFimSpool = "fim.spool";
inline constexpr const char* kIocSpool = "ioc.spool";
inline constexpr const char* kFimContent = "fim.content";
inline constexpr const char* kFimDocuments = "fim.documents";
inline constexpr const char* kStatusStore = "status.store";
inline constexpr const char* kParserCpu = "audit.parser.cpu";
inline constexpr const char* kProcessingCpu = "audit.processing.cpu";
inline constexpr const char* kDaemonMemory = "edr.memory";
inline constexpr const char* kKernelRules = "audit.rules";
} // namespace AHSContext

// One row of the health-status store.
struct AHSRecord
{
    // UTC, "%FT%TZ".
    std::string time;
    std::string contextId;
    int64_t statusCode = 0;
    int64_t state = 0;
    // A JSON object as text, or empty.
    std::string additionalFields;

    // The type of a status code; nothing for a code of no known type.
    static std::optional<AHSRecordType> TypeOf(int64_t statusCode);
    // "Configuration", "Upload", "Loss", "ResourceLimit", "KernelRules".
    static const char* TypeName(AHSRecordType type);
};

} // namespace vantor::edr
