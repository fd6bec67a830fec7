#include "picture.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

bool DrawLastDeadlock(std::filesystem::path const& file) {
    std::string tool =
        std::filesystem::read_symlink("/proc/self/exe").replace_filename("zo95kex-deadlock");
    std::string last = "--last";
    std::string output = "--output=" + file.string();
    std::string reports = "deadlock.txt";
    std::array<char*, 5> words{tool.data(), last.data(), output.data(), reports.data(), nullptr};
    pid_t child = 0;
    int const error = posix_spawn(&child, tool.c_str(), nullptr, nullptr, words.data(), environ);
    if (error != 0) {
        std::fprintf(stderr, "zohost: cannot run %s: %s\n", tool.c_str(), std::strerror(error));
        return false;
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0;
}
