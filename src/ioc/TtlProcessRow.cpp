#include "ioc/TtlProcessRow.h"

#include "common/Logging.h"
#include "common/SqlRowIterator.h"
#include "common/util/Json.h"
#include "ioc/SnapshotSqlDataFormatter.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <charconv>
#include <cstddef>
#include <iterator>

namespace vantor::ioc::internal
{

namespace
{

// A stored tag value is a number; anything nested deeper is not worth its text.
constexpr std::size_t kMaxLoggedNesting = 32;

void AppendImage(SnapshotSqlDataFormatter& formatter, const ImageFile& image)
{
    formatter.AppendString(image.deviceId);
    formatter.AppendInt64(image.attributes);
    formatter.AppendInt64(image.inode);
    formatter.AppendString(image.path);
    formatter.AppendInt64(image.ownerGid);
    formatter.AppendString(image.ownerGroup);
    formatter.AppendString(image.ownerName);
    formatter.AppendInt64(image.ownerUid);
    formatter.AppendString(image.fsAttributes);
}

class Columns
{
public:
    explicit Columns(std::vector<common::SqlRowIterator::Value> values)
        : m_values(std::move(values))
    {
    }
    int64_t Int() { return std::get<int64_t>(m_values.at(m_next++)); }
    std::string Text() { return std::get<std::string>(m_values.at(m_next++)); }
    ImageFile Image()
    {
        ImageFile image;
        image.deviceId = Text();
        image.attributes = Int();
        image.inode = Int();
        image.path = Text();
        image.ownerGid = Int();
        image.ownerGroup = Text();
        image.ownerName = Text();
        image.ownerUid = Int();
        image.fsAttributes = Text();
        return image;
    }

private:
    std::vector<common::SqlRowIterator::Value> m_values;
    size_t m_next = 0;
};

} // namespace

std::string TtlProcessRow::Format(SnapshotSqlDataFormatter& formatter, const ProcessInfo& process)
{
    formatter.Start();
    formatter.AppendInt64(process.pid);
    formatter.AppendString(process.arguments);
    formatter.AppendInt64(process.auid);
    formatter.AppendString(FormatChildren(process.children));
    formatter.AppendInt64(process.creationTime);
    formatter.AppendString(process.cwd);
    formatter.AppendInt64(process.euid);
    AppendImage(formatter, process.image);
    formatter.AppendInt64(process.parentPid);
    formatter.AppendInt64(process.Score());
    AppendImage(formatter, process.secondaryImage);
    formatter.AppendString(FormatTags(process.tags));
    formatter.AppendInt64(process.uid);
    return formatter.TakeBuffer();
}

ProcessInfo TtlProcessRow::Parse(const std::string& row)
{
    common::SqlRowIterator rows(
        SnapshotSqlDataFormatter::GetColumnTypes(SnapshotSqlDataFormatter::kTtlProcesses));
    rows.Add(row);
    Columns columns(rows.Next());
    ProcessInfo process;
    process.pid = static_cast<pid_t>(columns.Int());
    process.arguments = columns.Text();
    process.auid = columns.Int();
    process.children = ParseChildren(columns.Text());
    process.creationTime = columns.Int();
    process.cwd = columns.Text();
    process.euid = columns.Int();
    process.image = columns.Image();
    process.parentPid = static_cast<pid_t>(columns.Int());
    columns.Int(); // the score follows from the tags
    process.secondaryImage = columns.Image();
    process.tags = ParseTags(columns.Text());
    process.uid = columns.Int();
    return process;
}

std::string TtlProcessRow::FormatChildren(const std::set<pid_t>& children)
{
    std::string text;
    // A busy parent has thousands of children: no temporary per child.
    char digits[16];
    for (const pid_t child : children)
    {
        if (!text.empty())
        {
            text += ',';
        }
        const auto end = std::to_chars(std::begin(digits), std::end(digits), child).ptr;
        text.append(digits, end);
    }
    return text;
}

std::set<pid_t> TtlProcessRow::ParseChildren(const std::string& text)
{
    std::set<pid_t> children;
    for (size_t start = 0; start < text.size();)
    {
        auto end = text.find(',', start);
        end = end == std::string::npos ? text.size() : end;
        pid_t child = 0;
        const auto [last, ec] = std::from_chars(text.data() + start, text.data() + end, child);
        if (ec == std::errc() && last == text.data() + end && child > 0)
        {
            children.insert(child);
        }
        else
        {
            EDR_LOG_ERROR("Child pid " << text.substr(start, end - start) << " is deformed in db.");
        }
        start = end + 1;
    }
    return children;
}

std::string TtlProcessRow::FormatTags(const std::map<std::string, int64_t>& tags)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    for (const auto& [name, score] : tags)
    {
        writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
        writer.Int64(score);
    }
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::map<std::string, int64_t> TtlProcessRow::ParseTags(const std::string& text)
{
    std::map<std::string, int64_t> tags;
    rapidjson::Document document;
    // Iteratively: a damaged row may nest deeper than a recursive parse
    // could bear.
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document.HasParseError() || !document.IsObject())
    {
        if (!text.empty())
        {
            EDR_LOG_ERROR("Tag value " << text << " is deformed in db.");
        }
        return tags;
    }
    for (const auto& member : document.GetObject())
    {
        if (!member.value.IsInt64())
        {
            // Writing the value out recurses once per level.
            rapidjson::StringBuffer buffer;
            rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
            if (util::NestsWithin(member.value, kMaxLoggedNesting))
            {
                member.value.Accept(writer);
            }
            EDR_LOG_ERROR("Tag value " << (buffer.GetSize() > 0 ? buffer.GetString() : "(nested too deep)")
                                       << " is deformed in db.");
            continue;
        }
        tags.emplace(std::string(member.name.GetString(), member.name.GetStringLength()),
                     member.value.GetInt64());
    }
    return tags;
}

} // namespace vantor::ioc::internal
