#include "voraxis/SenderRecord.h"

#include "miscutils/Descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

namespace vrx {

namespace {

constexpr char recordName[] = "sender.record";
constexpr char recordDraftName[] = "sender.record.new";
constexpr std::string_view senderDirectoryPrefix = "VrxSender-";

// Addresses and packets are any bytes: the record holds them in hexadecimal.
std::string toHex(const ByteSpan& bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes)
        text += {digits[byte >> 4], digits[byte & 15]};
    return text;
}

Buffer fromHex(const std::string& text)
{
    Buffer bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(at, 2), nullptr, 16)));
    return bytes;
}

// When a process started, in clock ticks since boot: with its number, what tells one process
// from a later one that got the same number.
std::string processStart(unsigned int pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // The fields after the command name, which may hold blanks and parentheses itself.
    std::istringstream fields(line.substr(std::min(line.rfind(')'), line.size()) + 1));
    std::string field;
    for (int number = 3; number <= 22 && fields >> field; ++number)
    {}
    return field;
}

} // namespace

namespace detail {

bool writeSenderRecord(int directoryFD, const std::string& address, const ByteSpan& initialInfoPacket,
                       const ByteSpan& sequenceInfoPacket, std::size_t receivers)
{
    const unsigned int pid = static_cast<unsigned int>(getpid());
    const std::string record =
        "address " + toHex(ByteSpan(reinterpret_cast<const unsigned char*>(address.data()), address.size())) +
        "\npid " + std::to_string(pid) + "\nstarted " + processStart(pid) + "\ngreeting " +
        toHex(initialInfoPacket) + "\nsequence " + toHex(sequenceInfoPacket) + "\nreceivers " +
        std::to_string(receivers) + "\n";
    const miscUtils::FileDescriptor draft(
        openat(directoryFD, recordDraftName, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    return draft >= 0 && write(draft, record.data(), record.size()) == static_cast<ssize_t>(record.size()) &&
           renameat(directoryFD, recordDraftName, directoryFD, recordName) == 0;
}

void removeSenderRecord(int directoryFD)
{
    unlinkat(directoryFD, recordDraftName, 0);
    unlinkat(directoryFD, recordName, 0);
}

} // namespace detail

std::vector<LiveSender> findLiveSenders(const std::string& parent)
{
    std::vector<LiveSender> senders;
    DIR* listing = opendir(parent.c_str());
    if (listing == nullptr)
        return senders;
    while (const dirent* entry = readdir(listing))
    {
        struct stat status
        {};
        if (!std::string_view(entry->d_name).starts_with(senderDirectoryPrefix) ||
            fstatat(dirfd(listing), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode))
            continue;
        const std::string directory = parent + "/" + entry->d_name;
        std::ifstream file(directory + "/" + recordName);
        std::map<std::string, std::string> fields;
        for (std::string line; std::getline(file, line);)
            fields[line.substr(0, line.find(' '))] = line.substr(std::min(line.find(' ') + 1, line.size()));
        const std::optional<InitialInfo> greeting = tryParseInitialInfoPacket(fromHex(fields["greeting"]));
        const unsigned int pid = static_cast<unsigned int>(std::strtoul(fields["pid"].c_str(), nullptr, 10));
        // A killed sender's record stays: its process is gone, or its number is another's by now.
        if (!greeting || pid == 0 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) ||
            processStart(pid) != fields["started"])
            continue;
        const Buffer address = fromHex(fields["address"]);
        senders.push_back({std::string(address.begin(), address.end()), pid, status.st_uid, directory, *greeting,
                           fromHex(fields["sequence"]),
                           static_cast<unsigned int>(std::strtoul(fields["receivers"].c_str(), nullptr, 10))});
    }
    closedir(listing);
    std::ranges::sort(senders, {}, &LiveSender::address);
    return senders;
}

} // namespace vrx
