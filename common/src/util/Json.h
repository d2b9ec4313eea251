#pragma once

#include <rapidjson/document.h>

#include <string>
#include <string_view>

namespace vantor::util
{

// Parses untrusted JSON text: iteratively (deep nesting cannot exhaust the
// stack), with UTF-8 validation, and only one root value followed by nothing
// but whitespace or a terminating NUL. Answers whether it parsed.
bool ParseJson(rapidjson::Document& document, std::string_view text);

// Reads a whole file into text; answers false when it cannot be read.
bool ReadFile(const std::string& path, std::string& text);

// Member "key" as a string view, or empty when absent or not a string.
std::string_view GetString(const rapidjson::Value& object, const char* key);

} // namespace vantor::util
