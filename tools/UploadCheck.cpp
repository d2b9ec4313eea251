#include "tools/UploadCheck.h"

#include "common/util/Digest.h"
#include "common/util/Json.h"

#include <rapidjson/document.h>

namespace vantor::tools
{
namespace
{

struct FixedHeader
{
    const char* name;
    const char* value; // nullptr: any non-empty value
};
constexpr FixedHeader kFixedHeaders[] = {
    {"C-PRODUCT", "OUTPOST"},   {"C-PROTOVER", "1.0"},      {"C-PROTOCLNTPLATFORM", "LINUX"},
    {"C-PROTOCLNTARCH", "x64"}, {"C-PROTOTYPE", nullptr},   {"C-CUSTID", nullptr},
    {"C-CLNTID", nullptr},      {"C-PAYLOADHASH", nullptr}, {"X-Correlation-Id", nullptr},
};

} // namespace

std::string UploadCheck::FixedHeaders(const common::HttpHeaders& headers, const std::string& body)
{
    for (const auto& fixed : kFixedHeaders)
    {
        const auto value = headers.Get(fixed.name);
        if (!value || value->empty() || (fixed.value != nullptr && *value != fixed.value))
        {
            return std::string("bad or missing header ") + fixed.name;
        }
    }
    if (headers.Get("C-PAYLOADHASH") != util::Digest::HexOf(util::Digest::Algorithm::Sha256, body))
    {
        return "payload hash mismatch";
    }
    return {};
}

std::string UploadCheck::Status(const common::HttpHeaders& headers, const std::string& payloadText)
{
    if (headers.Get("C-PROTOTYPE") != std::optional<std::string>("status"))
    {
        return "status: C-PROTOTYPE is not status";
    }
    const auto type = headers.Get("Content-Type");
    if (!type || type->rfind("application/json", 0) != 0)
    {
        return "status: not application/json";
    }
    rapidjson::Document payload;
    if (!util::ParseJson(payload, payloadText) || !payload.IsObject() || !payload.HasMember("status") ||
        !payload["status"].IsArray() || payload["status"].Empty())
    {
        return "status: no status array";
    }
    for (const auto& record : payload["status"].GetArray())
    {
        if (!record.IsObject() || !record.HasMember("dateTime") || !record["dateTime"].IsString() ||
            record["dateTime"].GetStringLength() != 20 || !record.HasMember("contextId") ||
            !record["contextId"].IsString() || record["contextId"].GetStringLength() == 0 ||
            !record.HasMember("statusCode") || !record["statusCode"].IsInt64() ||
            !record.HasMember("state") || !record["state"].IsInt64())
        {
            return "status: incomplete record";
        }
        const auto fields = record.FindMember("additionalFields");
        if (fields != record.MemberEnd() &&
            (fields->value.IsObject() ? fields->value.ObjectEmpty()
                                      : !fields->value.IsString() || fields->value.GetStringLength() == 0))
        {
            return "status: empty additionalFields";
        }
    }
    return {};
}

} // namespace vantor::tools
