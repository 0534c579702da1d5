/*
 * Lets an executable with many cases be run directly: the module's state lives as long as the
 * process, so each case gets one of its own, as ctest gives it. Linked in, this is all there is to
 * do.
 */
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool PassesAlone(const std::string &name)
{
    const pid_t child = fork();
    if (child == 0) {
        const std::string filter = "--gtest_filter=" + name;
        execl("/proc/self/exe", "test", "--gtest_brief=1", filter.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    const bool ended = child > 0 && waitpid(child, &status, 0) == child;
    return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class OneEach : public testing::EmptyTestEventListener {
    void OnTestProgramStart(const testing::UnitTest &all) override
    {
        if (all.test_to_run_count() < 2) {
            return;
        }
        int failed = 0;
        for (int i = 0; i < all.total_test_suite_count(); ++i) {
            const testing::TestSuite &suite = *all.GetTestSuite(i);
            for (int j = 0; j < suite.total_test_count(); ++j) {
                const testing::TestInfo &test = *suite.GetTestInfo(j);
                const std::string name = std::string(suite.name()) + "." + test.name();
                if (test.should_run() && !PassesAlone(name)) {
                    std::printf("failed: %s\n", name.c_str());
                    ++failed;
                }
            }
        }
        std::printf("%d tests, a process each; %d failed\n", all.test_to_run_count(), failed);
        std::fflush(stdout);
        _exit(failed == 0 ? 0 : 1);
    }
};

[[maybe_unused]] const bool s_installed = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new OneEach);
    return true;
}();

} // namespace
