#include <miscutils/Assert.h>
#include <miscutils/MiscUtils.h>
#include <miscutils/ScopeGuard.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

namespace {

TEST(MonotonicSysclock, MatchesClockMonotonicAndNeverGoesBack)
{
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const miscUtils::TimeValue first = miscUtils::getMonotonicSysclockTime();
    const miscUtils::TimeValue second = miscUtils::getMonotonicSysclockTime();
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);

    const auto toNs = [](const timespec& time) {
        return static_cast<miscUtils::TimeValue>(time.tv_sec) * 1000000000ULL +
               static_cast<miscUtils::TimeValue>(time.tv_nsec);
    };
    EXPECT_LE(toNs(before), first);
    EXPECT_LE(first, second);
    EXPECT_LE(second, toNs(after));
}

TEST(StrerrorRSafe, GivesTheSystemTextAndHandlesUnknownNumbers)
{
    EXPECT_EQ(miscUtils::strerror_r_safe(EADDRINUSE), std::string(std::strerror(EADDRINUSE)));
    EXPECT_EQ(miscUtils::strerror_r_safe(ENOENT), "No such file or directory");
    EXPECT_FALSE(miscUtils::strerror_r_safe(123456).empty());
}

TEST(StrerrorRSafe, IsSafeFromManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    std::vector<bool> allMatched(8, true);
    for (std::size_t index = 0; index < allMatched.size(); ++index)
        threads.emplace_back([&, index] {
            const int errorNumber = index % 2 == 0 ? EPIPE : EAGAIN;
            const std::string expected = index % 2 == 0 ? "Broken pipe" : "Resource temporarily unavailable";
            for (int round = 0; round < 2000; ++round)
                if (miscUtils::strerror_r_safe(errorNumber) != expected)
                    allMatched[index] = false;
        });
    for (auto& thread : threads)
        thread.join();
    for (bool matched : allMatched)
        EXPECT_TRUE(matched);
}

TEST(ScopeGuard, RunsOnScopeExitUnlessDismissed)
{
    int runs = 0;
    {
        auto guard = miscUtils::makeScopeGuard([&] { ++runs; });
    }
    EXPECT_EQ(runs, 1);
    {
        auto guard = miscUtils::makeScopeGuard([&] { ++runs; });
        guard.dismiss();
    }
    EXPECT_EQ(runs, 1);
}

TEST(ScopeGuard, RunsWhenAnExceptionLeavesTheScope)
{
    bool cleanedUp = false;
    EXPECT_THROW(
        {
            auto guard = miscUtils::makeScopeGuard([&] { cleanedUp = true; });
            throw std::runtime_error("set-up failed");
        },
        std::runtime_error);
    EXPECT_TRUE(cleanedUp);
}

int checkedDivision(int dividend, int divisor)
{
    MISCUTILS_ASSERT(divisor != 0);
    return dividend / divisor;
}

TEST(AssertDeathTest, PrintsExpressionAndSignatureThenAborts)
{
    EXPECT_EQ(checkedDivision(6, 3), 2);
    EXPECT_DEATH(checkedDivision(1, 0),
                 "Assertion \"divisor != 0\" failed in int \\{anonymous\\}::checkedDivision\\(int, int\\)");
}

} // namespace
