#include "ioc/FileTypeIdentifier.h"

#include "common/Logging.h"
#include "edr/LibMagicWrapper.h"

#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace vantor::ioc::internal
{

const std::vector<FileTypeIdentifier::Pattern>& FileTypeIdentifier::DefaultPatterns()
{
    static const std::vector<Pattern> patterns{
        {"EICAR Virus Test", "EICAR"},
        {"Perl script text", "Perl"},
        {"PHP script", "PHP"},
        {"Python script", "Python"},
        {"Ruby script", "Ruby"}, // Older databases say "shell script text executable", newer ones
        // "shell script, ASCII text executable".
        {"script(,[ \\w-]*)? text exec", "Script"},
        {"XHTML document", "XHTML"},
        {"HTML document", "HTML"},
        {"JPEG image", "JPEG"},
        {"SQLite .* database", "SQLite"},
    };
    return patterns;
}

FileTypeIdentifier::FileTypeIdentifier(std::shared_ptr<const edr::LibMagicWrapper> magic,
                                       const std::vector<Pattern>& patterns)
    : m_magic(std::move(magic))
{
    try
    {
        for (const auto& pattern : patterns)
        {
            m_patterns.push_back({std::make_unique<const Poco::RegularExpression>(
                                      pattern.expression, Poco::RegularExpression::RE_CASELESS),
                                  pattern.type});
        }
    }
    catch (const Poco::Exception& e)
    {
        EDR_LOG_ERROR("FileTypeIdentifier: Failed to compile patterns: " << e.displayText());
        m_patterns.clear();
    }
}

FileTypeIdentifier::~FileTypeIdentifier() = default;

const char* FileTypeIdentifier::KindText(uint32_t mode)
{
    switch (mode & S_IFMT)
    {
    case S_IFREG:
        return kRegularFile;
    case S_IFLNK:
        return kSymbolicLink;
    case S_IFBLK:
        return kBlockDevice;
    case S_IFCHR:
        return kCharacterDevice;
    default:
        return kUnknown;
    }
}

std::string FileTypeIdentifier::Identify(const std::string& path, uint32_t mode,
                                         const std::optional<Version>& version) const
{
    if ((mode & S_IFMT) != S_IFREG || !m_magic)
    {
        return KindText(mode);
    }
    if (version)
    {
        std::lock_guard lock(m_mutex);
        const auto it = m_remembered.find(path);
        if (it != m_remembered.end() && it->second.first == *version)
        {
            return it->second.second;
        }
    }
    // Events about files already gone are common: a gone file costs one
    // lstat (libmagic, which looks at the link itself too, would map and
    // unmap its buffer first), no exception, and the reason is formatted only
    // for a debug log. Not remembered: the file may be there at the next event.
    std::string description;
    std::string error;
    const bool debug = common::Logging::Edr().is(Poco::Message::PRIO_DEBUG);
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0)
    {
        EDR_LOG_DEBUG("FileTypeIdentifier: Failed to lstat " << path << ": " << std::strerror(errno));
        return kRegularFile;
    }
    if (!m_magic->TryDescribe(path, description, debug ? &error : nullptr))
    {
        EDR_LOG_DEBUG("FileTypeIdentifier: " << error);
        return kRegularFile;
    }
    std::string type = Classify(description);
    if (version)
    {
        std::lock_guard lock(m_mutex);
        if (m_remembered.size() >= kMaxRemembered)
        {
            m_remembered.clear();
        }
        m_remembered.insert_or_assign(path, std::pair{*version, type});
    }
    return type;
}

std::string FileTypeIdentifier::Classify(const std::string& description) const
{
    for (const auto& pattern : m_patterns)
    {
        try
        {
            Poco::RegularExpression::Match match;
            if (pattern.expression->match(description, 0, match) > 0)
            {
                EDR_LOG_DEBUG("Matched Type: " << pattern.type);
                return pattern.type;
            }
        }
        catch (const Poco::Exception& e)
        {
            EDR_LOG_ERROR("Poco RegularExpression exception occurred: " << e.displayText());
        }
    }
    EDR_LOG_DEBUG("FileTypeIdentifier: Failed to match: " << description);
    return kRegularFile;
}

} // namespace vantor::ioc::internal
