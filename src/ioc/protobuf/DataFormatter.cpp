#include "ioc/protobuf/DataFormatter.h"

#include "common/Logging.h"
#include "common/SpoolStorage.h"
#include "edr/PathEscape.h"
#include "ioc/ClientInformation.h"
#include "ioc/Config.h"
#include "ioc/EventFields.h"
#include "ioc/EventRuleManager.h"
#include "ioc/Manifest.h"
#include "ioc/SequenceNumber.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/protobuf/DataFormatterException.h"

#include <charconv>

namespace vantor::ioc::internal::protobuf
{

namespace
{

// The sequence number field: one tag byte and at most ten varint bytes.
constexpr std::size_t kSequenceBytes = 11;

std::size_t FramedText(const std::string& text)
{
    return text.empty() ? 0 : 2 + text.size();
}

template <typename Messages>
void TakeActors(Messages& messages, std::vector<std::unique_ptr<pb::Actor>>& spare)
{
    for (auto& message : messages)
    {
        if (message.has_actor())
        {
            spare.emplace_back(message.release_actor());
        }
    }
}

} // namespace

DataFormatter::DataFormatter(AgentIdentity identity, Services services)
    : m_identity(std::move(identity))
    , m_services(std::move(services))
    , m_files(m_services.snapshot)
    , m_types(m_services.magic)
{
}

DataFormatter::~DataFormatter()
{
    // Rows of events appended since the last Finish.
    FlushSnapshot();
}

void DataFormatter::FlushSnapshot()
{
    try
    {
        if (!m_files.Flush())
        {
            EDR_LOG_ERROR("DataFormatter: Failed to store the batch's file rows in the snapshot");
        }
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("DataFormatter: Failed to store the batch's file rows in the snapshot: " << e.what());
    }
}

int64_t DataFormatter::ReadBootTime() const
{
    std::optional<std::string> text;
    try
    {
        text = ClientInformation::Read(m_services.snapshot, SnapshotSqlDataFormatter::kBootTime);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_DEBUG("DataFormatter: " << e.what());
    }
    if (!text)
    {
        throw DataFormatterException(
            "Protobuf::DataFormatterException: Error in reading boottime from snapshot");
    }
    int64_t value = 0;
    const auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (ec == std::errc::result_out_of_range)
    {
        throw DataFormatterException("Protobuf::DataFormatterException: boottime number out of range.");
    }
    if (ec != std::errc() || end != text->data() + text->size())
    {
        throw DataFormatterException(
            "Protobuf::DataFormatterException: Error in reading boottime from snapshot");
    }
    return value;
}

void DataFormatter::Start()
{
    if (m_inBatch)
    {
        throw DataFormatterException("DataFormatter::Start: Invalid state.");
    }
    const int64_t bootTime = ReadBootTime();
    TakeActors(*m_batch.mutable_directoryevent(), m_spareActors);
    TakeActors(*m_batch.mutable_fileevent(), m_spareActors);
    TakeActors(*m_batch.mutable_processevent(), m_spareActors);
    TakeActors(*m_batch.mutable_networkevent(), m_spareActors);
    TakeActors(*m_batch.mutable_loadedmodule(), m_spareActors);
    m_batch.Clear();
    auto& agent = *m_batch.mutable_agent();
    m_identity.FillAgent(agent);
    agent.set_isquarantine(m_services.config.HostQuarantined());
    agent.set_boottime(bootTime);
    edr::PathEscape::EscapeTo(m_services.rules.GetPolicyId(), *m_batch.mutable_protofileid());

    const uint64_t maxFileSize = m_services.rules.GetMaxFileSizeToProcess();
    m_context.emplace(Context{m_files, m_types,
                              maxFileSize != 0 ? maxFileSize : Manifest::kDefaultMaxFileSizeToProcess,
                              m_services.rules.IsSendMetadata(), &m_spareActors});
    m_count = 0;
    m_bytes = 2 + agent.ByteSizeLong() + FramedText(m_batch.protofileid()) + kSequenceBytes;
    m_inBatch = true;
}

const char* DataFormatter::KindOf(const edr::Event& event)
{
    const auto type = EventFields::Try([&] { return event.GetType(); });
    if (!type)
    {
        return kInvalidKind;
    }
    switch (*type)
    {
    case edr::EventType::Create:
    case edr::EventType::Delete:
    case edr::EventType::Read:
    case edr::EventType::Write:
    case edr::EventType::Attribute:
    case edr::EventType::Rename:
        return EventFields::IsDirectory(event) ? "directoryEvent" : "fileEvent";
    case edr::EventType::Running:
    case edr::EventType::Clone:
    case edr::EventType::Exit:
    case edr::EventType::AbnormalEnd:
        return "processEvent";
    case edr::EventType::Connect:
    case edr::EventType::Accept:
    case edr::EventType::Bind:
        return "networkEvent";
    }
    return kInvalidKind;
}

const Event* DataFormatter::ConverterFor(const edr::Event& event) const
{
    const std::string_view kind = KindOf(event);
    for (const Event* converter :
         {static_cast<const Event*>(&m_fileEvent), static_cast<const Event*>(&m_directoryEvent),
          static_cast<const Event*>(&m_processEvent), static_cast<const Event*>(&m_networkEvent)})
    {
        if (kind == converter->Kind())
        {
            return converter;
        }
    }
    return nullptr;
}

bool DataFormatter::Append(const edr::Event& event, const ProcessInfo* actor, bool hashContent)
{
    if (!m_inBatch)
    {
        throw DataFormatterException("DataFormatter::Append: Invalid state.");
    }
    EDR_LOG_DEBUG("Generating protobuf for " << EventFields::Describe(event));
    const Event* converter = ConverterFor(event);
    if (!converter)
    {
        EDR_LOG_DEBUG("DataFormatter::Append: Ignoring unknown type of event.");
        return false;
    }
    return Add(*converter, Input{event, actor, hashContent}, "Append");
}

bool DataFormatter::AppendLoadedModules(const edr::Event& event, const ProcessInfo& actor)
{
    if (!m_inBatch)
    {
        throw DataFormatterException("DataFormatter::Append: Invalid state.");
    }
    return Add(m_loadedModuleEvent, Input{event, &actor, false}, "AppendLoadedModules");
}

bool DataFormatter::Add(const Event& converter, const Input& input, const char* caller)
{
    try
    {
        const auto added = converter.AddTo(m_batch, input, *m_context);
        if (!added)
        {
            return false;
        }
        m_count += added->messages;
        m_bytes += added->bytes;
        EDR_LOG_DEBUG("Added " << converter.Noun() << " event to protobuf cache.");
        return true;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Failed to add " << converter.Noun() << " event to protobuf cache. (DataFormatter::"
                                       << caller << ": " << e.what() << ")");
        return false;
    }
}

std::string DataFormatter::Serialize(const google::protobuf::Message& message)
{
    const auto* descriptor = message.GetDescriptor();
    if (descriptor != pb::IoCEvent::descriptor() && descriptor != pb::DirectoryEvent::descriptor() &&
        descriptor != pb::FileEvent::descriptor() && descriptor != pb::LoadedModule::descriptor() &&
        descriptor != pb::NetworkEvent::descriptor() && descriptor != pb::ProcessEvent::descriptor())
    {
        throw DataFormatterException("DataFormatter::Serialize: Unknown protobuf message type.");
    }
    std::string bytes;
    if (!message.SerializeToString(&bytes))
    {
        throw DataFormatterException(
            "ProtoBufDataFormatter::Serialize: Failed to serialize protobuf message.");
    }
    return bytes;
}

bool DataFormatter::Finish()
{
    if (!m_inBatch)
    {
        throw DataFormatterException("DataFormatter::Finish: Invalid state.");
    }
    m_inBatch = false;
    m_context.reset();
    FlushSnapshot();
    if (m_count == 0)
    {
        EDR_LOG_DEBUG("DataFormatter::Finish: Empty batch, nothing to write.");
        return false;
    }
    const uint64_t number = m_services.sequenceNumber.Current() + 1;
    m_batch.set_sequenceno(number);
    std::string bytes;
    try
    {
        bytes = Serialize(m_batch);
    }
    catch (const DataFormatterException& e)
    {
        EDR_LOG_DEBUG(e.what());
        throw DataFormatterException("DataFormatter::Finish: Failed to serialize protobuf message.");
    }
    EDR_LOG_DEBUG("DataFormatter::Finish: Batch " << number << " holds " << m_count << " events in "
                                                  << bytes.size() << " bytes (estimated " << m_bytes << ")");
    const int code = WriteToSpool(std::move(bytes));
    if (code != 0)
    {
        EDR_LOG_ERROR("Failed to write protobuf to spool storage. Error code " << code);
        return false;
    }
    m_services.sequenceNumber.Next();
    EDR_LOG_INFO("Protobuf written to spool storage successfully");
    return true;
}

int DataFormatter::WriteToSpool(std::string bytes)
{
    try
    {
        const auto result = m_services.spool.Write(std::move(bytes));
        if (!result.Succeeded())
        {
            EDR_LOG_DEBUG("DataFormatter: " << result.message);
            return static_cast<int>(result.status);
        }
        // A spool file holds one batch: two batches back to back would read
        // as one, with the later number.
        m_services.spool.FlushDataCache();
        return 0;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_DEBUG("DataFormatter: " << e.what());
        return -1;
    }
}

std::size_t DataFormatter::BatchByteLimit() const
{
    const uint64_t kb = m_services.config.MaxFileSizeKb();
    return static_cast<std::size_t>((kb != 0 ? kb : common::SpoolStorage::kDefaultMaxFileSizeKb) * 1024);
}

bool DataFormatter::IsFull() const
{
    const std::size_t limit = BatchByteLimit();
    return m_bytes >= limit - limit / 4;
}

} // namespace vantor::ioc::internal::protobuf
