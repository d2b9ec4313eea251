#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <type_traits>

namespace vantor::fim::internal
{

// The JSON writer of event documents. Every string is made valid UTF-8 before
// it is written, so that a hostile file name or command line keeps the
// document valid JSON: paths in the reversible form of PathEscape, other
// text with U+FFFD in place of each byte that does not start a valid
// sequence. Values that the event cannot tell are written as "Unknown".
//
// Text that is valid as it is (most is) is written without a copy. A writer
// may be reused: Take() hands the document over and starts the next one in
// the same buffer (a buffer grown past kKeptBytes by a large document is
// given back).
//
// Not thread-safe; one document at a time.
class DocumentWriter
{
public:
    static constexpr const char* kUnknown = "Unknown";
    static constexpr std::size_t kKeptBytes = 64 * 1024;

    DocumentWriter();

    DocumentWriter(const DocumentWriter&) = delete;
    DocumentWriter& operator=(const DocumentWriter&) = delete;

    void Key(const char* key) { m_writer.Key(key); }
    void String(std::string_view value);
    void Member(const char* key, std::string_view value)
    {
        Key(key);
        String(value);
    }
    // A file path, escaped so that its bytes can be recovered (PathEscape).
    void PathMember(const char* key, std::string_view path);
    void Uint64(uint64_t value) { m_writer.Uint64(value); }
    void Int64(int64_t value) { m_writer.Int64(value); }
    void StartObject() { m_writer.StartObject(); }
    void EndObject() { m_writer.EndObject(); }
    void StartArray() { m_writer.StartArray(); }
    void EndArray() { m_writer.EndArray(); }

    // Writes the number that getter answers, or "Unknown" when it throws.
    template <typename Getter>
    void NumberOrUnknown(const char* key, Getter getter)
    {
        Key(key);
        try
        {
            const auto value = getter();
            if constexpr (std::is_signed_v<decltype(value)>)
            {
                Int64(static_cast<int64_t>(value));
            }
            else
            {
                Uint64(static_cast<uint64_t>(value));
            }
        }
        catch (const std::exception&)
        {
            String(kUnknown);
        }
    }

    // Writes the string that getter answers, or "Unknown" when it throws.
    template <typename Getter>
    void StringOrUnknown(const char* key, Getter getter)
    {
        Key(key);
        try
        {
            String(getter());
        }
        catch (const std::exception&)
        {
            String(kUnknown);
        }
    }

    // The text written so far.
    std::string Text() const { return {m_buffer.GetString(), m_buffer.GetSize()}; }
    // The text written so far; the writer then starts a new document.
    std::string Take();
    // Drops what was written and starts a new document.
    void Reset();

    // The text with every invalid byte replaced by U+FFFD; the result lives
    // in scratch.
    static const std::string& ValidUtf8(std::string_view text, std::string& scratch);

private:
    rapidjson::StringBuffer m_buffer;
    rapidjson::Writer<rapidjson::StringBuffer> m_writer;
    std::string m_scratch;
};

} // namespace vantor::fim::internal
