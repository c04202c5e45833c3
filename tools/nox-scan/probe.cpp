// The child loads the library and answers through a pipe: one letter, then the name
// or the reason. An answer that does not come says that the child has died of it.

#include "probe.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "nox.h"
#include "noxplugin.h"
#include "osa/osa_ext.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeLimit{10};
constexpr char kName = 'N';
constexpr char kReason = 'R';
constexpr size_t kLongestAnswer = 4096;

// ---- in the child

// Keeps the last line, which says why a load has failed.
void keep_line(void *user, const OSA_TraceRecord *record)
{
    auto &line = *static_cast<std::string *>(user);
    line = record->text;
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
}

Probe describe(OSA_Library *library)
{
    const auto plugin_desc_func =
        reinterpret_cast<NOXPluginDescFunc>(OSA_LibraryGetFunc(library, "plugin_desc"));
    if (plugin_desc_func == nullptr)
        return {"", "no plugin descriptor (it exports no function plugin_desc)"};
    NOXPluginDesc description{};
    plugin_desc_func(&description);
    if (description.name == nullptr || *description.name == '\0')
        return {"", "its descriptor has no name"};
    if (description.init == nullptr)
        return {"", "its descriptor has no init function"};
    if (description.size < static_cast<int32_t>(nox_plugin_get_size()))
        return {"", "its descriptor gives a record smaller than a plugin's"};
    return {description.name, ""};
}

// The scan names the library itself.
std::string without_path(const std::string &line, const std::string &path)
{
    const std::string beginning = "library " + path + " ";
    return line.rfind(beginning, 0) == 0 ? line.substr(beginning.size()) : line;
}

Probe load(const std::string &path)
{
    std::string line;
    OSA_TraceSetReceiver(keep_line, &line);
    OSA_SystemInit(nullptr);
    OSA_Library *library = OSA_LibraryLoad(path.c_str());
    OSA_TraceSetReceiver(nullptr, nullptr);
    if (library == nullptr)
        return {"", line.empty() ? "it cannot be loaded" : without_path(line, path)};
    return describe(library);
}

// What the library itself prints is no business of the scan's.
void silence_output()
{
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nowhere < 0)
        return;
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
}

// A library that hangs must not outlive a scan that was killed.
void end_with(pid_t scan)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != scan)
        _exit(1);
    std::signal(SIGALRM, SIG_DFL);
    alarm(static_cast<unsigned>(kTimeLimit.count()) + 1);
}

[[noreturn]] void run_child(const std::string &path, int answer_to)
{
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    silence_output();
    const Probe probe = load(path);
    std::string answer = probe.reason.empty() ? kName + probe.name : kReason + probe.reason;
    answer.resize(std::min(answer.size(), kLongestAnswer));
    const ssize_t written = write(answer_to, answer.data(), answer.size());
    _exit(written == static_cast<ssize_t>(answer.size()) ? 0 : 1);
}

// ---- in the parent

// Reads until the child closes its end; false when the time is over.
bool read_answer(int answer_from, std::string &answer)
{
    const Clock::time_point end = Clock::now() + kTimeLimit;
    std::array<char, 512> chunk;
    while (answer.size() <= kLongestAnswer) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd ready = {answer_from, POLLIN, 0};
        if (left <= 0 || (poll(&ready, 1, static_cast<int>(left)) == 0))
            return false;
        const ssize_t count = read(answer_from, chunk.data(), chunk.size());
        if (count == 0)
            return true;
        if (count > 0)
            answer.append(chunk.data(), static_cast<size_t>(count));
        else if (errno != EINTR)
            return true;
    }
    return true;
}

int wait_for(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::string how_it_ended(int status)
{
    if (WIFSIGNALED(status))
        return std::string("it crashed while it was loaded (") + sigdescr_np(WTERMSIG(status)) +
               ")";
    return "it ended the process while it was loaded (exit code " +
           std::to_string(WEXITSTATUS(status)) + ")";
}

Probe judge(const std::string &answer, bool in_time, int status)
{
    if (!in_time)
        return {"", "it was still being loaded after " + std::to_string(kTimeLimit.count()) + " s"};
    if (answer.empty())
        return {"", how_it_ended(status)};
    return answer[0] == kName ? Probe{answer.substr(1), ""} : Probe{"", answer.substr(1)};
}

} // namespace

Probe probe_library(const std::string &path)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return {"", std::string("no pipe to a child process: ") + strerrordesc_np(errno)};
    std::fflush(nullptr); // or the child would inherit what is buffered
    const pid_t scan = getpid();
    const pid_t child = fork();
    if (child < 0) {
        const int error = errno;
        close(ends[0]);
        close(ends[1]);
        return {"", std::string("no child process: ") + strerrordesc_np(error)};
    }
    if (child == 0) {
        end_with(scan);
        run_child(path, ends[1]);
    }
    close(ends[1]);
    std::string answer;
    const bool in_time = read_answer(ends[0], answer);
    close(ends[0]);
    kill(child, SIGKILL); // it has answered, or it hangs
    return judge(answer, in_time, wait_for(child));
}
