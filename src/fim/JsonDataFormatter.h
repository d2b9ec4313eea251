#pragma once

#include "common/SpoolDataFormatter.h"

#include <rapidjson/document.h>

namespace vantor::fim::internal
{

// Spools FIM event documents: the cache is one JSON object {"events": [...]}
// and a spool file holds one such object.
class JsonDataFormatter : public common::SpoolDataFormatter
{
public:
    JsonDataFormatter();

    // Throws std::invalid_argument "fim::JsonDataFormatter: 'data' is not a
    // valid JSON object" for anything but one JSON object.
    std::size_t Append(std::string_view record) override;
    void Serialize(std::string& out) override;
    void Reset() override;

private:
    rapidjson::Document m_cache;
};

} // namespace vantor::fim::internal
