#pragma once

#include "ioc/FileTypeIdentifier.h"
#include "ioc/ProcessInfo.h"
#include "ioc/SnapshotFiles.h"
#include "ioc/protobuf/AgentIdentity.h"
#include "ioc/protobuf/DirectoryEvent.h"
#include "ioc/protobuf/FileEvent.h"
#include "ioc/protobuf/LoadedModuleEvent.h"
#include "ioc/protobuf/NetworkEvent.h"
#include "ioc/protobuf/ProcessEvent.h"

#include <google/protobuf/message.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantor::common
{
class SpoolStorage;
class SqlStorage;
} // namespace vantor::common

namespace vantor::edr
{
class Event;
class LibMagicWrapper;
} // namespace vantor::edr

namespace vantor::ioc::Ioc
{
class Config;
}

namespace vantor::ioc::internal
{
class EventRuleManager;
class SequenceNumber;
} // namespace vantor::ioc::internal

namespace vantor::ioc::internal::protobuf
{

// Collects reported events into one IoCEvent batch at a time and hands each
// finished batch, numbered, to the IOC spool as one file.
//
//   Start -> Append... -> Finish -> Start -> ...
//
// Start opens a batch: the Agent message (identity, platform "LINUX",
// isQuarantine from "host_quarantined", bootTime from the snapshot's
// "BootTime" row) and protoFileId (the policy id); the policy's
// "maxFileSizeToProcess" and "sendMetadata" hold for the whole batch.
// Append converts one event with the converter of its kind ("directoryEvent",
// "fileEvent", "processEvent", "networkEvent"; AppendLoadedModules adds the
// "loadedModule" messages of a running process). Finish takes the next
// sequence number, serializes the batch, writes it to the spool as a file of
// its own and writes the number back to "ClientInformation" /
// "SequenceNumber", so that numbering goes on after a restart. The snapshot
// rows of the batch's events are stored at Finish (and at destruction). An empty batch
// is closed without a number or a file.
//
// Out of order, Append and Finish throw DataFormatterException
// "DataFormatter::Append: Invalid state." / "DataFormatter::Finish: Invalid
// state." (Start: "DataFormatter::Start: Invalid state."). An event that
// cannot be converted is logged ("Failed to add <kind> event to protobuf
// cache.") and left out; the batch goes on. A Finish that throws or fails
// ends the batch; its events are lost, its number is not used.
//
// When to Finish is the caller's: by time, and when IsFull() (a quarter of
// the spool's file size is left, as a batch larger than a spool file cannot
// be written).
//
// Wiring: the component builds it with the agent's identity
// (AgentIdentity::FromConfig of the common configuration) and its snapshot
// storage, sequence number, spool, configuration, rule manager and magic
// wrapper, all of which must outlive it; the processing thread calls the
// rest. Not thread-safe: one thread (the processing thread) uses it; only
// SnapshotCleared may be called from any thread.
class DataFormatter
{
public:
    struct Services
    {
        common::SqlStorage& snapshot;
        SequenceNumber& sequenceNumber;
        common::SpoolStorage& spool;
        const Ioc::Config& config;
        const EventRuleManager& rules;
        // May be null: regular files are then typed "regularfile".
        std::shared_ptr<const edr::LibMagicWrapper> magic;
    };

    static constexpr const char* kInvalidKind = "invalidEvent";

    DataFormatter(AgentIdentity identity, Services services);
    ~DataFormatter();

    DataFormatter(const DataFormatter&) = delete;
    DataFormatter& operator=(const DataFormatter&) = delete;

    // Throws DataFormatterException "Protobuf::DataFormatterException: Error
    // in reading boottime from snapshot" when the "BootTime" row cannot be
    // read, "Protobuf::DataFormatterException: boottime number out of
    // range." when it does not fit; no batch is open then.
    void Start();

    // Answers whether the event's message is in the batch. actor: the
    // acting process as the TTL tree knows it (may be null); hashContent
    // false: its content must not be hashed.
    bool Append(const edr::Event& event, const ProcessInfo* actor = nullptr, bool hashContent = true);
    // The loaded modules of the running process actor (from its event).
    bool AppendLoadedModules(const edr::Event& event, const ProcessInfo& actor);

    // Answers whether a batch went to the spool ("Protobuf written to spool
    // storage successfully"; "Failed to write protobuf to spool storage.
    // Error code <code>" when the spool refused it: 1 refused, 2 shutting
    // down, -1 an error such as a batch larger than a spool file). Throws
    // DataFormatterException "DataFormatter::Finish: Failed to serialize
    // protobuf message." when the batch cannot be serialized.
    bool Finish();

    // One message of a known kind (a batch or an event message) in wire
    // form. Throws DataFormatterException "DataFormatter::Serialize: Unknown
    // protobuf message type." for another message and
    // "ProtoBufDataFormatter::Serialize: Failed to serialize protobuf
    // message." when the library fails.
    static std::string Serialize(const google::protobuf::Message& message);

    // The batch kind of an event ("fileEvent", ...; kInvalidKind when no
    // message takes it).
    static const char* KindOf(const edr::Event& event);

    bool InBatch() const { return m_inBatch; }
    // Messages in the open batch.
    std::size_t EventCount() const { return m_count; }
    // The serialized size of the open batch, give or take a few bytes.
    std::size_t ByteSizeEstimate() const { return m_bytes; }
    // The spool's file size, which a batch must not exceed.
    std::size_t BatchByteLimit() const;
    bool IsFull() const;

    // The snapshot's tables were emptied by another party; rows remembered
    // as stored are read again. Thread-safe, unlike the rest.
    void SnapshotCleared() { m_files.StoredRowsCleared(); }

private:
    const Event* ConverterFor(const edr::Event& event) const;
    bool Add(const Event& converter, const Input& input, const char* caller);
    int64_t ReadBootTime() const;
    // Stores the snapshot rows held since the last flush; logs a failure.
    void FlushSnapshot();
    // Writes one serialized batch as a spool file; answers the error code,
    // 0 on success.
    int WriteToSpool(std::string bytes);

    const AgentIdentity m_identity;
    Services m_services;
    SnapshotFiles m_files;
    const FileTypeIdentifier m_types;
    const DirectoryEvent m_directoryEvent;
    const FileEvent m_fileEvent;
    const ProcessEvent m_processEvent;
    const NetworkEvent m_networkEvent;
    const LoadedModuleEvent m_loadedModuleEvent;

    // Reused from batch to batch: its cleared messages are filled again.
    pb::IoCEvent m_batch;
    // The actors of the last batch's messages, taken out before it is
    // cleared, to be filled again.
    std::vector<std::unique_ptr<pb::Actor>> m_spareActors;
    std::optional<Context> m_context;
    bool m_inBatch = false;
    std::size_t m_count = 0;
    std::size_t m_bytes = 0;
};

} // namespace vantor::ioc::internal::protobuf
