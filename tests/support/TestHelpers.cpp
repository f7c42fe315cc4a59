#include "TestHelpers.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
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

ProcessResources processResources()
{
    ProcessResources resources{openDescriptors(), {}};
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        resources.threads.push_back(entry.path().filename());
    std::sort(resources.threads.begin(), resources.threads.end());
    return resources;
}

namespace {

std::vector<std::string> beyond(const std::vector<std::string>& now, const std::vector<std::string>& baseline)
{
    std::vector<std::string> added;
    std::set_difference(now.begin(), now.end(), baseline.begin(), baseline.end(), std::back_inserter(added));
    return added;
}

} // namespace

::testing::AssertionResult settlesAt(const ProcessResources& baseline, Extra extra)
{
    ProcessResources added;
    const bool settled = waitFor([&] {
        const ProcessResources now = processResources();
        added = {beyond(now.descriptors, baseline.descriptors), beyond(now.threads, baseline.threads)};
        const auto matches = [](std::size_t count, std::size_t wanted) { return wanted == anyCount || count == wanted; };
        return matches(added.threads.size(), extra.threads) && matches(added.descriptors.size(), extra.descriptors);
    }, 10s);
    if (settled)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "expected " << extra.threads << " thread(s) and " << extra.descriptors
           << " descriptor(s) beyond the baseline; still held beyond it: threads "
           << ::testing::PrintToString(added.threads) << ", descriptors "
           << ::testing::PrintToString(added.descriptors);
}

} // namespace vrx::test
