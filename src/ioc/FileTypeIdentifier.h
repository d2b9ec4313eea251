#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Poco
{
class RegularExpression;
}

namespace vantor::edr
{
class LibMagicWrapper;
}

namespace vantor::ioc::internal
{

// The "type" text of a reported file. By the file's kind first:
// "regularfile", "symbolicLink", "blockdevicefile", "characterdevicefile",
// else "unknown". A regular file's magic description is then searched
// (case-insensitively, Perl syntax) with each pattern in turn and the type
// of the first that matches replaces the kind ("Matched Type: <type>" at
// debug level); a description that no pattern matches keeps "regularfile"
// ("FileTypeIdentifier: Failed to match: <description>" at debug level).
//
// The built-in patterns, most specific first (a PHP or Python script is
// "script text executable" too, an XHTML document an "HTML document"):
// "EICAR Virus Test" -> "EICAR", "Perl script text" -> "Perl",
// "PHP script" -> "PHP", "Python script" -> "Python", "Ruby script" ->
// "Ruby", "script text exec" (also "script, ASCII text exec") -> "Script", "XHTML document" -> "XHTML",
// "HTML document" -> "HTML", "JPEG image" -> "JPEG", "SQLite .* database"
// -> "SQLite".
//
// A regular file's type is remembered by path with the version the caller
// names (its size, modification and change times from the event's stat): the
// same version of a file is described once, as the same files are reported
// again and again. At most kMaxRemembered paths are kept; the memory starts
// afresh when full. A file that is gone is "regularfile" without asking
// libmagic, which sets up a buffer of megabytes before it finds that out (it
// is asked all the same while debug logging wants its reason).
//
// Identify is safe from any thread (the magic wrapper serialises its own
// lookups; the memory has its own mutex).
class FileTypeIdentifier
{
public:
    struct Pattern
    {
        std::string expression;
        std::string type;
    };

    static constexpr const char* kRegularFile = "regularfile";
    static constexpr const char* kSymbolicLink = "symbolicLink";
    static constexpr const char* kBlockDevice = "blockdevicefile";
    static constexpr const char* kCharacterDevice = "characterdevicefile";
    static constexpr const char* kUnknown = "unknown";

    static const std::vector<Pattern>& DefaultPatterns();

    // magic may be null: regular files then stay "regularfile". A pattern
    // list that does not compile logs "FileTypeIdentifier: Failed to
    // compile patterns: <error>" and leaves the identifier without patterns.
    explicit FileTypeIdentifier(std::shared_ptr<const edr::LibMagicWrapper> magic,
                                const std::vector<Pattern>& patterns = DefaultPatterns());
    ~FileTypeIdentifier();

    FileTypeIdentifier(const FileTypeIdentifier&) = delete;
    FileTypeIdentifier& operator=(const FileTypeIdentifier&) = delete;

    // The version of a file's content as far as the caller knows it: times in
    // nanoseconds since the epoch. A file replaced by another one of the same
    // size and modification time has a new change time.
    struct Version
    {
        int64_t modified = 0;
        int64_t changed = 0;
        int64_t size = 0;
        bool operator==(const Version&) const = default;
    };

    static constexpr size_t kMaxRemembered = 4096;

    // The type text of the file at path whose st_mode type bits are mode. A
    // file the magic database cannot describe keeps its kind. With a
    // version, the type found for that version of the path before is used.
    std::string Identify(const std::string& path, uint32_t mode,
                         const std::optional<Version>& version = std::nullopt) const;
    // The type text of a regular file with this magic description.
    std::string Classify(const std::string& description) const;

    // The kind text of st_mode type bits.
    static const char* KindText(uint32_t mode);

private:
    struct Compiled
    {
        std::unique_ptr<const Poco::RegularExpression> expression;
        std::string type;
    };

    const std::shared_ptr<const edr::LibMagicWrapper> m_magic;
    std::vector<Compiled> m_patterns;
    mutable std::mutex m_mutex;
    mutable std::unordered_map<std::string, std::pair<Version, std::string>> m_remembered;
};

} // namespace vantor::ioc::internal
