#pragma once

#include <miscutils/Export.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vrx {

/// Who may take part in a stream. A sender greets, and a receiver follows, only a peer that the
/// policy allows, as the kernel's credentials of the peer on the sidechannel tell it (the
/// process's user and groups); a peer outside it is refused with one log line that names its
/// user and process. The modes of the sender's directory and of the main channel's socket
/// files follow the policy, so that nobody outside it can reach, replace or take over the
/// main channel.
///
/// Processes of the same user and root are always allowed. Opening up is the application's
/// choice: a group, or everyone (any local process may then read a greeting, subscribe, and
/// push packets into a pipeline receiver). Programs that set no policy follow the environment
/// variable VRX_ALLOW ("user", "group:NAME" or "everyone").
struct VRX_EXPORT AccessPolicy
{
    enum class Scope : std::uint32_t
    {
        User = 0,     ///< processes of this user, and root
        Group = 1,    ///< ...and processes in the group groupId
        Everyone = 2, ///< every local process
    };

    Scope scope = Scope::User;
    unsigned int groupId = 0; ///< the group of Scope::Group

    /// "user", "group:NAME" (a group's name or number) or "everyone"; nothing for any other
    /// text or a group that does not exist.
    static std::optional<AccessPolicy> parse(const std::string& text);
    /// What VRX_ALLOW says; User when it is unset, and when it does not parse (then with an
    /// ERROR line).
    static AccessPolicy fromEnvironment();
    /// "user", "group:NAME" (the number when the group has no name) or "everyone".
    std::string toString() const;

    /// True when the policy allows the process at the other end of the connected Unix socket
    /// `socketFD`, as the kernel tells who it is. `peer` names it ("user NAME (uid N), process
    /// P"), or says why the kernel cannot tell.
    bool allowsPeerOf(int socketFD, std::string& peer) const;

    bool operator==(const AccessPolicy&) const = default;
};

} // namespace vrx
