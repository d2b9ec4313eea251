#pragma once

#include "ioc/Engine.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vantor::ioc
{

class TtlProcessTree;

// Lower-case hexadecimal SHA-256 digest of a file's content.
using Sha256Hash = std::string;

namespace internal
{

// Judges the process of an event by its executable's hash, and keeps that
// verdict on the process in the tree (under kVerdictKey), where it never
// goes down.
//
// The policy carries no hash reputation, so the path-to-hash map holds the
// digests this engine computed: an executable whose hash was already taken
// is "Clean", one seen for the first time (or changed since) is "Unknown",
// and an executable of the policy's "knownProcessPaths" is
// "CleanWithoutHash" (trusted by its path; its hash is still taken, and a
// failure to take it throws common::HashGeneratorException "Failed to
// generate hash for known process: <path>: <reason>"). "Suspicious" and
// "Malicious" come only from verdicts stored on processes.
//
// For a process-running event the executable is hashed once per path (a
// file event that writes, creates, deletes or renames the path makes it
// hashed again at the next start); a parent stored as "Unknown" or worse
// passes its verdict on, and the process's stored verdict wins when it is
// worse. Other events take the stored verdict, or the one of the path when
// none is stored yet. A stored value outside 1-5 throws VerdictException.
//
// Reset and GetVerdict take the engine's mutex; hashing runs under it,
// outside the tree's lock. Callable from any thread.
class HashMatchingEngine : public Engine
{
public:
    static constexpr const char* kVerdictKey = "HashMatching";

    // Digest of the file at path; throws for a file that cannot be read or
    // is larger than maxSize.
    using HashFunction = std::function<Sha256Hash(const std::string& path, uint64_t maxSize)>;

    // The tree must outlive the engine.
    explicit HashMatchingEngine(TtlProcessTree& tree, HashFunction hash = DefaultHash);

    // Forgets every hash taken; takes the known paths and the largest file
    // size to hash.
    void Reset(const std::vector<std::string>& knownProcessPaths, uint64_t maxFileSize);

    Verdict GetVerdict(const EventPtr& event) override;

    // The hash taken of an executable, if any.
    std::optional<Sha256Hash> GetHash(const std::string& path);

    static Sha256Hash DefaultHash(const std::string& path, uint64_t maxSize);

private:
    // What the tree knows of the process and its parent.
    struct Lineage
    {
        bool known = false;
        pid_t parentPid = 0;
        std::optional<int> stored;
        std::optional<int> parentStored;
        // The verdict of the executable's path.
        Verdict pathVerdict = Verdict::Unknown;
        bool hashed = false;
        // The executable, copied only when it must be hashed.
        std::string image;
    };

    Lineage ReadLineage(const edr::Event& event, bool running) const;
    void ReadImage(const std::string& path, bool running, Lineage& lineage) const;
    void Forget(const edr::Event& event);
    void Hash(const std::string& path, Verdict pathVerdict);
    Verdict Decide(const Lineage& lineage, pid_t pid);

    TtlProcessTree& m_tree;
    const HashFunction m_hash;
    std::unordered_set<std::string> m_knownPaths;
    uint64_t m_maxFileSize;
    std::unordered_map<std::string, Sha256Hash> m_hashes;
};

} // namespace internal
} // namespace vantor::ioc
