#include "voraxis/AccessPolicy.h"

#include "miscutils/ErrnoText.h"
#include "voraxis/PeerAccess.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <string_view>

namespace vrx {

namespace {

using miscUtils::detail::ErrnoText;

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

constexpr std::string_view groupPrefix = "group:";
constexpr std::string_view senderDirectoryPrefix = "VrxSender-";
constexpr std::string_view ipcScheme = "ipc://";

std::optional<gid_t> groupIdOf(const std::string& name)
{
    group entry{};
    group* found = nullptr;
    std::array<char, 4096> storage{};
    if (getgrnam_r(name.c_str(), &entry, storage.data(), storage.size(), &found) == 0 && found != nullptr)
        return found->gr_gid;
    // A number names its group whether or not the group database knows it.
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error == std::errc{} && end == name.data() + name.size())
        return static_cast<gid_t>(number);
    return std::nullopt;
}

std::string groupName(gid_t id)
{
    group entry{};
    group* found = nullptr;
    std::array<char, 4096> storage{};
    if (getgrgid_r(id, &entry, storage.data(), storage.size(), &found) == 0 && found != nullptr)
        return found->gr_name;
    return std::to_string(id);
}

bool writableOutside(const struct stat& status, const AccessPolicy& policy)
{
    if (policy.scope == AccessPolicy::Scope::Everyone)
        return false;
    const bool groupAllowed = policy.scope == AccessPolicy::Scope::Group && status.st_gid == policy.groupId;
    return (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && !groupAllowed);
}

} // namespace

std::optional<AccessPolicy> AccessPolicy::parse(const std::string& text)
{
    if (text == "user")
        return AccessPolicy{};
    if (text == "everyone")
        return AccessPolicy{Scope::Everyone, 0};
    if (!text.starts_with(groupPrefix) || text.size() == groupPrefix.size())
        return std::nullopt;
    if (const std::optional<gid_t> id = groupIdOf(text.substr(groupPrefix.size())))
        return AccessPolicy{Scope::Group, *id};
    return std::nullopt;
}

AccessPolicy AccessPolicy::fromEnvironment()
{
    const char* text = std::getenv("VRX_ALLOW");
    if (text == nullptr)
        return {};
    if (const std::optional<AccessPolicy> policy = parse(text))
        return *policy;
    LOG4CPLUS_ERROR(logger, "VRX_ALLOW=\"" << text
                                           << "\" is no access policy (user, group:NAME, everyone); allowing "
                                              "processes of this user only");
    return {};
}

std::string AccessPolicy::toString() const
{
    switch (scope)
    {
    case Scope::User: return "user";
    case Scope::Group: return std::string(groupPrefix) + groupName(groupId);
    case Scope::Everyone: return "everyone";
    }
    return "user";
}

bool AccessPolicy::allowsPeerOf(int socketFD, std::string& peer) const
{
    const std::optional<detail::PeerCredentials> credentials = detail::peerCredentials(socketFD);
    peer = credentials ? detail::describe(*credentials)
                       : "a process whose credentials are unknown (" +
                             miscUtils::detail::toString(ErrnoText{errno}) + ")";
    return credentials && detail::allows(*this, *credentials);
}

namespace detail {

std::optional<PeerCredentials> peerCredentials(int socketFD)
{
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socketFD, SOL_SOCKET, SO_PEERCRED, &credentials, &size) < 0)
        return std::nullopt;
    PeerCredentials peer{credentials.pid, credentials.uid, credentials.gid, std::vector<gid_t>(16)};
    for (;;)
    {
        socklen_t groupsSize = static_cast<socklen_t>(peer.groups.size() * sizeof(gid_t));
        if (getsockopt(socketFD, SOL_SOCKET, SO_PEERGROUPS, peer.groups.data(), &groupsSize) == 0)
        {
            peer.groups.resize(groupsSize / sizeof(gid_t));
            return peer;
        }
        if (errno != ERANGE)
            return std::nullopt;
        peer.groups.resize(groupsSize / sizeof(gid_t)); // the size the kernel asked for
    }
}

std::string describe(const PeerCredentials& peer)
{
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 4096> storage{};
    const std::string uid = "uid " + std::to_string(peer.uid);
    const std::string user =
        getpwuid_r(peer.uid, &entry, storage.data(), storage.size(), &found) == 0 && found != nullptr
            ? "user " + std::string(found->pw_name) + " (" + uid + ")"
            : uid;
    return user + ", process " + std::to_string(peer.pid);
}

bool allows(const AccessPolicy& policy, const PeerCredentials& peer)
{
    if (peer.uid == geteuid() || peer.uid == 0 || policy.scope == AccessPolicy::Scope::Everyone)
        return true;
    return policy.scope == AccessPolicy::Scope::Group &&
           (peer.gid == policy.groupId || std::ranges::count(peer.groups, policy.groupId) > 0);
}

miscUtils::FileDescriptor openSendersParent(const std::string& path, std::string& refusal)
{
    // The last link is followed: a parent reached through a link is as good as any, and it is
    // what the descriptor holds that is checked.
    miscUtils::FileDescriptor parent(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status
    {};
    if (parent < 0 || fstat(parent, &status) < 0)
        return {};
    if (status.st_uid != geteuid() && status.st_uid != 0)
        refusal = "it belongs to uid " + std::to_string(status.st_uid) + ", neither to this user nor to root";
    else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0)
        refusal = "others may write it and it is not sticky, so they could replace what a sender makes in it";
    return refusal.empty() ? std::move(parent) : miscUtils::FileDescriptor();
}

miscUtils::FileDescriptor makeSenderDirectory(int parentFD, std::string& name)
{
    static constexpr std::string_view letters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    for (int attempt = 0; attempt < 100; ++attempt)
    {
        std::array<unsigned char, 6> random{};
        if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
            return {};
        name = senderDirectoryPrefix;
        for (const unsigned char byte : random)
            name += letters[byte % letters.size()];
        if (mkdirat(parentFD, name.c_str(), 0700) == 0)
            return miscUtils::FileDescriptor(
                openat(parentFD, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (errno != EEXIST)
            return {};
    }
    return {};
}

bool openUpSenderDirectory(int directoryFD, const AccessPolicy& policy, NanomsgProtocol protocol)
{
    const bool pipeline = protocol == NanomsgProtocol::Pipeline;
    mode_t mode = 0700;
    switch (policy.scope)
    {
    case AccessPolicy::Scope::User: break;
    case AccessPolicy::Scope::Group: mode = pipeline ? 01770 : 0750; break;
    case AccessPolicy::Scope::Everyone: mode = pipeline ? 01777 : 0755; break;
    }
    if (policy.scope == AccessPolicy::Scope::Group &&
        fchown(directoryFD, static_cast<uid_t>(-1), policy.groupId) < 0)
        return false;
    return fchmod(directoryFD, mode) == 0;
}

unsigned int socketMode(const AccessPolicy& policy)
{
    switch (policy.scope)
    {
    case AccessPolicy::Scope::User: return 0600;
    case AccessPolicy::Scope::Group: return 0620;
    case AccessPolicy::Scope::Everyone: return 0622;
    }
    return 0600;
}

bool openUpSocket(int directoryFD, const std::string& name, const AccessPolicy& policy)
{
    if (policy.scope == AccessPolicy::Scope::Group &&
        fchownat(directoryFD, name.c_str(), static_cast<uid_t>(-1), policy.groupId, AT_SYMLINK_NOFOLLOW) < 0)
        return false;
    return fchmodat(directoryFD, name.c_str(), socketMode(policy), AT_SYMLINK_NOFOLLOW) == 0;
}

std::optional<MainChannelPlace> checkMainChannelUri(const std::string& uri, NanomsgProtocol protocol,
                                                    const AccessPolicy& policy, uid_t senderUid,
                                                    std::string& refusal)
{
    const std::size_t slash = uri.rfind('/');
    if (!uri.starts_with(ipcScheme) || slash < ipcScheme.size() + 1 || slash + 1 == uri.size())
    {
        refusal = "it names no socket file of an ipc:// address";
        return std::nullopt;
    }
    const std::string directory = uri.substr(ipcScheme.size(), slash - ipcScheme.size());
    if (!std::string_view(directory).substr(directory.rfind('/') + 1).starts_with(senderDirectoryPrefix))
    {
        refusal = "it is not in a sender's directory";
        return std::nullopt;
    }
    MainChannelPlace place{
        miscUtils::FileDescriptor(open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
        uri.substr(slash + 1), ""};
    struct stat status
    {};
    if (place.directory < 0 || fstat(place.directory, &status) < 0)
    {
        refusal = "its directory cannot be opened: " + toString(ErrnoText{errno});
        return std::nullopt;
    }
    if (status.st_uid != senderUid)
    {
        refusal = "its directory belongs to uid " + std::to_string(status.st_uid) + ", not to the sender";
        return std::nullopt;
    }
    // Whoever may write the directory may put a socket of theirs where the receiver binds (or,
    // unless it is sticky, where the sender's is).
    const bool exposed = writableOutside(status, policy) &&
                         (protocol == NanomsgProtocol::Pipeline || (status.st_mode & S_ISVTX) == 0);
    struct stat socket
    {};
    const bool exists = fstatat(place.directory, place.name.c_str(), &socket, AT_SYMLINK_NOFOLLOW) == 0;
    if (exposed)
        refusal = "processes outside the access policy may write its directory";
    else if (exists ? !S_ISSOCK(socket.st_mode) : protocol == NanomsgProtocol::PubSub)
        refusal = exists ? "it is no socket" : "there is no socket";
    else if (exists && protocol == NanomsgProtocol::PubSub && socket.st_uid != senderUid)
        refusal = "the socket does not belong to the sender";
    place.uri =
        std::string(ipcScheme) + "/proc/self/fd/" + std::to_string(place.directory) + "/" + place.name;
    if (refusal.empty() && place.uri.size() - ipcScheme.size() >= sizeof(sockaddr_un::sun_path))
        refusal = "its name is too long for a socket address";
    return refusal.empty() ? std::optional(std::move(place)) : std::nullopt;
}

} // namespace detail

} // namespace vrx
