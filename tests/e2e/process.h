// Runs a program without a shell, in a folder that is gone when the test ends.
#ifndef NOX_TESTS_E2E_PROCESS_H
#define NOX_TESTS_E2E_PROCESS_H

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

class TemporaryFolder
{
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    std::string operator/(const std::string &name) const
    {
        return path_ / name;
    }

private:
    std::filesystem::path path_;
};

struct Result {
    int code; // exit code, or minus the signal that killed it
    std::string out;
    std::string err;
};

// Runs the program to its end. `meanwhile` is called with the process and a function
// that tells what it has written to standard error so far. `largest_file` above 0
// limits what it may write to one file, as a full disk does.
using ErrorsSoFar = std::function<std::string()>;
using Meanwhile = std::function<void(pid_t process, const ErrorsSoFar &errors)>;
Result run(const std::vector<std::string> &command, const Meanwhile &meanwhile = nullptr,
           size_t largest_file = 0);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

// Waits until the condition holds, for at most 20 s; whether it does.
bool wait_until(const std::function<bool()> &condition);

#endif
