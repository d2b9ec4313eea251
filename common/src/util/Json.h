#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace vantor::util
{

// Deeper than any document the daemon reads or writes.
constexpr std::size_t kMaxJsonDepth = 256;

// Parses untrusted JSON text: iteratively (deep nesting cannot exhaust the
// stack), with UTF-8 validation, and only one root value followed by nothing
// but whitespace or a terminating NUL; refuses values nested deeper than
// kMaxJsonDepth. Answers whether it parsed.
bool ParseJson(rapidjson::Document& document, std::string_view text);

// Reads a whole file into text; answers false when it cannot be read.
bool ReadFile(const std::string& path, std::string& text);

// Whether no array or object lies more than maxDepth levels below value.
// Writing a value out (Accept) recurses once per level, so text parsed from
// a hostile source is checked before it is written again. Iterative.
bool NestsWithin(const rapidjson::Value& value, std::size_t maxDepth);

// Member "key" as a string view, or empty when absent or not a string.
std::string_view GetString(const rapidjson::Value& object, const char* key);

} // namespace vantor::util
