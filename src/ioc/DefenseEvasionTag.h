#pragma once

#include "ioc/Tag.h"

#include <sys/types.h>

#include <optional>
#include <string_view>
#include <vector>

namespace vantor::ioc::internal
{

// "DefenseEvasion", two techniques tested in this order:
// - Hidden Artifacts: a create event whose file or directory name starts
//   with "." (not "." or ".."), or a rename that gives a visible name a
//   hidden one.
// - Permissions Change: an attribute event after which the file (symbolic
//   links followed, as chmod follows them) carries every bit of one of the
//   suspicious permissions. An attribute event does not carry the new mode,
//   so the file is examined when the tag is asked; any attribute change
//   (mode, owner, times, extended attributes) of a file that then has such
//   bits counts.
//
// Suspicious permissions come from "permissions" in the settings: an array
// of octal texts of permission bits, e.g. ["4000", "2000", "0002"], at most
// 07777 and not 0. An element that is not a string logs "Error reading
// permission at index <i>", one that is no such octal text "Invalid
// permission found at index <i>"; both are skipped. A missing member or one
// that is no array keeps the default list: set-user-ID (4000),
// set-group-ID (2000) and world-writable (0002).
class DefenseEvasionTag : public Tag
{
public:
    DefenseEvasionTag();

    bool IsApplicable(const edr::Event& event, const ProcessInfo& process) const override;

    const std::vector<mode_t>& Permissions() const { return m_permissions; }
    // The bits of an octal permission text; nullopt when it is none.
    static std::optional<mode_t> ParsePermission(std::string_view text);

protected:
    void ApplyOwnSettings(const rapidjson::Value& settings) override;

private:
    static bool CreatesHiddenArtifact(const edr::Event& event);
    bool SetsSuspiciousPermission(const edr::Event& event) const;

    std::vector<mode_t> m_permissions;
};

} // namespace vantor::ioc::internal
