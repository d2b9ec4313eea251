#include "ioc/SequenceNumber.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "ioc/ClientInformation.h"
#include "ioc/SnapshotSqlDataFormatter.h"

#include <charconv>
#include <optional>
#include <stdexcept>

namespace vantor::ioc::internal
{

namespace
{

using Formatter = SnapshotSqlDataFormatter;

} // namespace

SequenceNumber::SequenceNumber(common::SqlStorage& snapshot)
    : m_snapshot(snapshot)
{
    std::optional<std::string> text;
    try
    {
        text = ClientInformation::Read(m_snapshot, Formatter::kSequenceNumber);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Error in reading sequence number");
        EDR_LOG_DEBUG("SequenceNumber: " << e.what());
        return;
    }
    if (!text)
    {
        Store(kStart);
        return;
    }
    uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (ec == std::errc::result_out_of_range)
    {
        throw std::runtime_error("ioc::component: sequence number out of range.");
    }
    if (ec != std::errc() || end != text->data() + text->size())
    {
        EDR_LOG_ERROR("Error in reading sequence number");
        return;
    }
    m_value = value;
}

uint64_t SequenceNumber::Current() const
{
    std::lock_guard lock(m_mutex);
    return m_value;
}

void SequenceNumber::AtLeast(uint64_t value)
{
    std::lock_guard lock(m_mutex);
    if (value <= m_value)
    {
        return;
    }
    EDR_LOG_WARNING("SequenceNumber: batch " << value << " is spooled but the stored number is " << m_value
                                             << "; numbering goes on from the spooled one");
    m_value = value;
    Store(m_value);
}

uint64_t SequenceNumber::Next()
{
    std::lock_guard lock(m_mutex);
    Store(++m_value);
    return m_value;
}

void SequenceNumber::Store(uint64_t value)
{
    Formatter formatter;
    const auto result =
        m_snapshot.Write(Formatter::kClientInformation,
                         {{Formatter::kSequenceNumber,
                           formatter.FormatRecord(Formatter::kSequenceNumber, std::to_string(value))}});
    if (!result.success)
    {
        EDR_LOG_ERROR("Failed to write sequence number " << value << ": " << result.error);
    }
}

} // namespace vantor::ioc::internal
