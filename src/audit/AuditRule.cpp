#include "audit/AuditRule.h"

#include <libaudit.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace vantor::audit
{

namespace
{

// Fields whose value is a length into the rule's string buffer.
bool IsStringField(uint32_t field)
{
    switch (field)
    {
    case AUDIT_SUBJ_USER:
    case AUDIT_SUBJ_ROLE:
    case AUDIT_SUBJ_TYPE:
    case AUDIT_SUBJ_SEN:
    case AUDIT_SUBJ_CLR:
    case AUDIT_OBJ_USER:
    case AUDIT_OBJ_ROLE:
    case AUDIT_OBJ_TYPE:
    case AUDIT_OBJ_LEV_LOW:
    case AUDIT_OBJ_LEV_HIGH:
    case AUDIT_WATCH:
    case AUDIT_DIR:
    case AUDIT_FILTERKEY:
    case AUDIT_EXE:
        return true;
    default:
        return false;
    }
}

} // namespace

AuditRule::AuditRule()
    // calloc, not new: libaudit reallocates and frees the record itself.
    : m_rule(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data))))
{
    if (m_rule == nullptr)
    {
        throw std::bad_alloc();
    }
}

AuditRule::AuditRule(const audit_rule_data* rule, size_t size)
{
    if (rule == nullptr || size < sizeof(audit_rule_data) || rule->buflen > size - sizeof(audit_rule_data) ||
        rule->field_count > AUDIT_MAX_FIELDS)
    {
        throw std::runtime_error("AuditRule: 'rule' is null or invalid");
    }
    const size_t total = sizeof(audit_rule_data) + rule->buflen;
    m_rule = static_cast<audit_rule_data*>(std::calloc(1, total));
    if (m_rule == nullptr)
    {
        throw std::bad_alloc();
    }
    std::memcpy(m_rule, rule, total);
    m_flags = static_cast<int>(rule->flags);
    m_action = static_cast<int>(rule->action);
}

AuditRule AuditRule::Deserialize(const std::vector<uint8_t>& bytes)
{
    // The bytes need not be aligned for the record: its fields are read from
    // aligned copies.
    audit_rule_data header{};
    if (bytes.size() < sizeof header)
    {
        throw std::runtime_error("AuditRule: 'rule' is null or invalid");
    }
    std::memcpy(&header, bytes.data(), sizeof header);
    if (header.buflen != bytes.size() - sizeof header)
    {
        throw std::runtime_error("AuditRule: 'rule' is null or invalid");
    }
    std::unique_ptr<audit_rule_data, decltype(&std::free)> record(
        static_cast<audit_rule_data*>(std::calloc(1, bytes.size())), &std::free);
    if (!record)
    {
        throw std::bad_alloc();
    }
    std::memcpy(record.get(), bytes.data(), bytes.size());
    return AuditRule(record.get(), bytes.size());
}

AuditRule::~AuditRule()
{
    Free();
}

AuditRule::AuditRule(AuditRule&& other) noexcept
    : m_rule(std::exchange(other.m_rule, nullptr))
    , m_flags(other.m_flags)
    , m_action(other.m_action)
{
}

AuditRule& AuditRule::operator=(AuditRule&& other) noexcept
{
    if (this != &other)
    {
        Free();
        m_rule = std::exchange(other.m_rule, nullptr);
        m_flags = other.m_flags;
        m_action = other.m_action;
    }
    return *this;
}

void AuditRule::Free()
{
    if (m_rule != nullptr)
    {
        ::audit_rule_free_data(m_rule);
        m_rule = nullptr;
    }
}

std::string AuditRule::GetStringField(uint32_t fieldType) const
{
    if (m_rule == nullptr)
    {
        return {};
    }
    size_t offset = 0;
    const uint32_t count = std::min<uint32_t>(m_rule->field_count, AUDIT_MAX_FIELDS);
    for (uint32_t i = 0; i < count; ++i)
    {
        const uint32_t field = m_rule->fields[i] & ~AUDIT_OPERATORS & ~AUDIT_NEGATE;
        if (!IsStringField(field))
        {
            continue;
        }
        const size_t length = m_rule->values[i];
        if (offset + length > m_rule->buflen)
        {
            return {};
        }
        if (field == fieldType)
        {
            return std::string(m_rule->buf + offset, length);
        }
        offset += length;
    }
    return {};
}

std::vector<std::string> AuditRule::GetKeys() const
{
    std::vector<std::string> keys;
    const std::string text = GetStringField(AUDIT_FILTERKEY);
    size_t start = 0;
    while (start < text.size())
    {
        size_t end = text.find(static_cast<char>(AUDIT_KEY_SEPARATOR), start);
        if (end == std::string::npos)
        {
            end = text.size();
        }
        if (end > start)
        {
            keys.emplace_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return keys;
}

bool AuditRule::HasKey(const std::string& key) const
{
    for (const auto& k : GetKeys())
    {
        if (k == key)
        {
            return true;
        }
    }
    return false;
}

std::string AuditRule::KeyText() const
{
    std::string text;
    for (const auto& key : GetKeys())
    {
        text += text.empty() ? key : "," + key;
    }
    return text;
}

std::string AuditRule::GetWatchPath() const
{
    std::string path = GetStringField(AUDIT_WATCH);
    return path.empty() ? GetStringField(AUDIT_DIR) : path;
}

size_t AuditRule::Size() const
{
    return m_rule == nullptr ? 0 : sizeof(audit_rule_data) + m_rule->buflen;
}

std::vector<uint8_t> AuditRule::Serialize() const
{
    std::vector<uint8_t> bytes(Size());
    if (!bytes.empty())
    {
        std::memcpy(bytes.data(), m_rule, bytes.size());
        auto* copy = reinterpret_cast<audit_rule_data*>(bytes.data());
        copy->flags = static_cast<uint32_t>(m_flags);
        copy->action = static_cast<uint32_t>(m_action);
    }
    return bytes;
}

} // namespace vantor::audit
