#pragma once

#include "common/SpoolDataFormatter.h"

#include <rapidjson/reader.h>

#include <string>

namespace vantor::fim::internal
{

// Spools FIM event documents: the cache is one JSON object {"events": [...]}
// and a spool file holds one such object.
//
// A document is checked (one JSON object, valid UTF-8) but not rebuilt: its
// text goes into the cache as it came, so that no tree of it is made and
// written out again. The documents come from a compact writer, so the spool
// file is the same as if they had been rebuilt; the event processor's own
// documents (AppendOwn) are not even checked.
class JsonDataFormatter : public common::SpoolDataFormatter
{
public:
    JsonDataFormatter();

    // Throws std::invalid_argument "fim::JsonDataFormatter: 'data' is not a
    // valid JSON object" for anything but one JSON object.
    std::size_t Append(std::string_view record) override;
    // A document of EventDocument, compact and valid: taken as it is.
    std::size_t AppendOwn(std::string_view record) override;
    void Serialize(std::string& out) override;
    void Reset() override;

private:
    std::size_t Add(std::string_view record, std::size_t size);

    // The documents, comma-separated.
    std::string m_events;
    rapidjson::Reader m_reader;
};

} // namespace vantor::fim::internal
