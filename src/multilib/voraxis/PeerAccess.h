#pragma once

// What an access policy comes down to: the credentials of a sidechannel peer, the modes of a
// sender's directory and of the main channel's socket files, and the places a greeting may
// send a receiver to. Private to the library.

#include "miscutils/Descriptors.h"
#include "voraxis/AccessPolicy.h"
#include "voraxis/SideChannel.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace vrx::detail {

/// What the kernel tells of the process at the other end of a Unix socket.
struct PeerCredentials
{
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups; ///< its supplementary groups
};

/// Read from a connected Unix socket; nothing (errno set) when the kernel cannot tell.
std::optional<PeerCredentials> peerCredentials(int socketFD);
/// "user NAME (uid N), process P".
std::string describe(const PeerCredentials& peer);
/// True for this process's user, for root, and for whom the policy opens up to.
bool allows(const AccessPolicy& policy, const PeerCredentials& peer);

/// The parent of the senders' directories, opened when no one but its owner can remove or
/// replace what a sender makes in it: owned by this user or root, and sticky when others may
/// write it. Invalid, with the reason, when not.
miscUtils::FileDescriptor openSendersParent(const std::string& path, std::string& refusal);
/// Makes a directory named "VrxSender-" and six random characters in `parentFD`, mode 0700
/// until its owner opens it up, and opens it; invalid (errno set) when that fails.
miscUtils::FileDescriptor makeSenderDirectory(int parentFD, std::string& name);
/// Gives a sender's directory the mode and group the policy asks for: writable by its owner,
/// and, with a pipeline channel (whose receivers bind in it), by the group or everyone the
/// policy allows, sticky then. False (errno set) when that fails.
bool openUpSenderDirectory(int directoryFD, const AccessPolicy& policy, NanomsgProtocol protocol);
/// Gives the socket file `name` in `directoryFD` the mode and group the policy asks for (a
/// connect takes write permission), without following a link. False (errno set) on failure.
bool openUpSocket(int directoryFD, const std::string& name, const AccessPolicy& policy);
/// The mode openUpSocket gives, for the log.
unsigned int socketMode(const AccessPolicy& policy);

/// Where a greeting's main channel may be bound or connected, once checked: the sender's
/// directory, open, and the socket's name in it. The socket is reached through the open
/// directory ("ipc:///proc/self/fd/N/NAME"), so that nothing can be swapped in between.
struct MainChannelPlace
{
    miscUtils::FileDescriptor directory;
    std::string name;
    std::string uri;
};
/// Checks that `uri` names a socket inside a sender's directory ("VrxSender-..."), owned by the
/// sender's user, that nobody outside the policy can write (in publish/subscribe mode an
/// existing socket of the sender's in a sticky directory will do; in pipeline mode the socket
/// does not exist yet or is one). Nothing, with the reason, when it does not.
std::optional<MainChannelPlace> checkMainChannelUri(const std::string& uri, NanomsgProtocol protocol,
                                                    const AccessPolicy& policy, uid_t senderUid,
                                                    std::string& refusal);

} // namespace vrx::detail
