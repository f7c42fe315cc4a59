#include "TestHelpers.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace vrx::test {

Buffer bytes(std::string_view text)
{
    return Buffer(text.begin(), text.end());
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return condition();
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

std::vector<std::string> openDescriptors()
{
    std::vector<std::string> descriptors;
    DIR* directory = opendir("/proc/self/fd");
    if (directory == nullptr)
        return descriptors;
    const int listingFD = dirfd(directory);
    while (const dirent* entry = readdir(directory))
    {
        if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == listingFD)
            continue;
        char target[4096] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(link.c_str(), target, sizeof(target) - 1) < 0)
            continue;
        descriptors.push_back(std::string(entry->d_name) + " -> " + target);
    }
    closedir(directory);
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

std::size_t descriptorCount()
{
    return openDescriptors().size();
}

std::size_t threadCount()
{
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        ++count;
    return count;
}

} // namespace vrx::test
