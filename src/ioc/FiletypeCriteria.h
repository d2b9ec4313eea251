#pragma once

#include "edr/FilterCriteria.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantor::ioc::internal
{

// One filter of a file rule's "fileTypeToInclude": glob patterns of file
// type descriptions (libmagic's, such as "ELF 64-bit LSB executable*" or
// "*shell script*"). A file event matches when its file may be typed and its
// description matches a pattern.
//
// A file is typed only when it is a regular file or a symbolic link whose
// size is above 0 and at most maxFileSizeToProcess bytes; an empty file
// therefore never matches.
//
// Immutable after construction; matching is safe from any thread.
class FiletypeCriteria : public edr::FilterCriteria
{
public:
    // filter: {"patterns": [...]}. Throws EventRuleException "Failed to parse
    // file type filters" when it is not an object with a "patterns" array,
    // "Invalid value for FileType patterns" for a pattern that is not a
    // string and "FileType Pattern cannot be empty" for an empty one.
    FiletypeCriteria(const rapidjson::Value& filter, uint64_t maxFileSizeToProcess);

    bool Match(const edr::Event& event) const override;

    // The type description of a file event's file when the limits above let
    // it be typed; empty otherwise (each reason logged).
    static std::optional<std::string> FileTypeOf(const edr::Event& event, uint64_t maxFileSizeToProcess);

    const std::vector<std::string>& GetPatterns() const { return m_patterns; }

private:
    std::vector<std::string> m_patterns;
    uint64_t m_maxFileSizeToProcess;
};

} // namespace vantor::ioc::internal
