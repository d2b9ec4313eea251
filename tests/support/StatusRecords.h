#pragma once

// The health-status records a receiver took, read back from its output
// directory for comparison.

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vantor::test
{

struct StatusRecord
{
    std::string contextId;
    int64_t statusCode = 0;
    rapidjson::Document fields; // additionalFields; null when the record had none
};

// Every record of every status upload stored in outputDir so far.
std::vector<StatusRecord> ReadStatusRecords(const std::string& outputDir);

// The sum of one numeric field over the records of a context id and status
// code (each record carries what changed since the last of its kind).
uint64_t Total(const std::vector<StatusRecord>& records, const char* contextId, int64_t statusCode,
               const char* field);

} // namespace vantor::test
