#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct audit_rule_data;

namespace vantor::audit
{

// Owns one libaudit rule record (struct audit_rule_data and its string
// buffer) together with the filter flags and action it is sent with, so that
// it can be deleted from the kernel exactly as it was added: the kernel finds
// a rule to delete by comparing list, prepend flag, action and fields.
class AuditRule
{
public:
    // A zeroed record of the kernel's size, ready for the libaudit builders.
    AuditRule();
    // Copies a record received from the kernel (a rule list reply). Throws
    // std::runtime_error "AuditRule: 'rule' is null or invalid" for a null
    // record or one whose string buffer does not fit in size bytes.
    AuditRule(const audit_rule_data* rule, size_t size);
    // A record as Serialize() wrote it, with its flags and action. Throws
    // std::runtime_error "AuditRule: 'rule' is null or invalid" for bytes that
    // are not exactly one record.
    static AuditRule Deserialize(const std::vector<uint8_t>& bytes);
    ~AuditRule();

    AuditRule(AuditRule&& other) noexcept;
    AuditRule& operator=(AuditRule&& other) noexcept;
    AuditRule(const AuditRule&) = delete;
    AuditRule& operator=(const AuditRule&) = delete;

    audit_rule_data* Get() const { return m_rule; }
    // For the libaudit builders that may reallocate the record.
    audit_rule_data** Ptr() { return &m_rule; }

    // Filter list with AUDIT_FILTER_PREPEND if prepended, and AUDIT_NEVER or
    // AUDIT_ALWAYS. A rule read from the kernel carries both already.
    int GetFlags() const { return m_flags; }
    int GetAction() const { return m_action; }
    void SetFlags(int flags) { m_flags = flags; }
    void SetAction(int action) { m_action = action; }

    // The keys of the rule: the text of its key field split at libaudit's key
    // separator; empty when it has none.
    std::vector<std::string> GetKeys() const;
    bool HasKey(const std::string& key) const;
    // The keys joined with commas, for log lines.
    std::string KeyText() const;
    // Path of a watch or directory watch; empty for other rules.
    std::string GetWatchPath() const;
    // Record size including its string buffer.
    size_t Size() const;
    // The record's bytes with flags and action filled in, as sent to the kernel.
    std::vector<uint8_t> Serialize() const;

private:
    // Text of the first field of the type, from the string buffer.
    std::string GetStringField(uint32_t fieldType) const;
    void Free();

    audit_rule_data* m_rule = nullptr;
    int m_flags = 0;
    int m_action = 0;
};

} // namespace vantor::audit
