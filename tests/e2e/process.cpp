// Child processes of the end-to-end tests.

#include "process.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

TemporaryFolder::TemporaryFolder()
{
    std::string name = std::filesystem::temp_directory_path() / "nox-e2e-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    path_ = name;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

namespace
{

[[noreturn]] void become(std::vector<std::string> command, const std::string &out,
                         const std::string &err, size_t largest_file)
{
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(open(out.c_str(), kFlags, 0600), STDOUT_FILENO);
    dup2(open(err.c_str(), kFlags, 0600), STDERR_FILENO);
    if (largest_file > 0) {
        const rlimit limit{largest_file, largest_file};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    std::vector<char *> arguments;
    for (std::string &word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

Result run(const std::vector<std::string> &command, const Meanwhile &meanwhile, size_t largest_file)
{
    const TemporaryFolder folder;
    const std::string out = folder / "out";
    const std::string err = folder / "err";
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that is stopped leaves no player behind
        become(command, out, err, largest_file);
    }
    if (meanwhile)
        meanwhile(child, [&] { return read_file(err); });
    int status = 0;
    waitpid(child, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return {code, read_file(out), read_file(err)};
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary) << text;
}

bool wait_until(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}
