/* The host program, run as its users run it. */
#ifndef TESTS_HOST_PROGRAM_H
#define TESTS_HOST_PROGRAM_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

struct Outcome {
    int status;
    std::string out, err;
};

inline std::string readFile(const fs::path &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/* A directory of the running test's own. */
inline fs::path &directory()
{
    static fs::path path;
    return path;
}

class Host : public testing::Test {
protected:
    Host()
    {
        std::string made = testing::TempDir() + "host_test.XXXXXX";
        if (mkdtemp(made.data()) == nullptr) {
            throw fs::filesystem_error("mkdtemp", made,
                                       std::error_code(errno, std::system_category()));
        }
        directory() = made;
    }
    ~Host() override
    {
        fs::remove_all(directory());
    }

    static Outcome play(const std::string &arguments)
    {
        const std::string out = directory() / "out", err = directory() / "err";
        const std::string command =
            std::string("'") + HOST + "' " + arguments + " >'" + out + "' 2>'" + err + "'";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
    }

    static Outcome playScript(const std::string &script, const std::string &options)
    {
        const fs::path path = directory() / "x.lua";
        std::ofstream(path) << script;
        return play(options + " '" + path.string() + "'");
    }
};

inline void expectLines(const std::string &text, const std::vector<std::string> &patterns)
{
    for (const std::string &pattern : patterns) {
        EXPECT_TRUE(std::regex_search(text, std::regex(pattern))) << pattern << "\nin\n" << text;
    }
}

#endif
