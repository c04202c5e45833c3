// The graph's text comes from the library, the drawing from graphviz. The program gets
// the text, and its answers are taken, through files in memory: none of them is left
// behind, however the run ends, and FILE is written only when there is a drawing.

#include "picture.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr char kProgram[] = "dot";
constexpr std::string_view kTextSuffix = ".dot";
constexpr std::array<std::string_view, 3> kSuffixes = {kTextSuffix, ".svg", ".png"};

// The library cuts what it writes of one element to 127 bytes.
constexpr size_t kLongestName = 120;

class File
{
public:
    explicit File(int descriptor) : descriptor_(descriptor) {}
    ~File()
    {
        if (descriptor_ >= 0)
            close(descriptor_);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    int get() const
    {
        return descriptor_;
    }

private:
    int descriptor_;
};

[[noreturn]] void fail(const std::string &what, int error)
{
    throw PictureError{what + ": " + std::strerror(error)};
}

int open_in_memory(const char *name)
{
    const int descriptor = memfd_create(name, MFD_CLOEXEC);
    if (descriptor < 0)
        fail("no memory for the graph", errno);
    return descriptor;
}

// Creates or empties the file. Not what can be written only once, such as a FIFO.
int open_for_writing(const std::string &path)
{
    const int descriptor =
        open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
    if (descriptor < 0)
        fail("cannot write " + path, errno);
    struct stat status;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        return descriptor;
    close(descriptor);
    throw PictureError{"cannot write " + path + ": not a regular file"};
}

// Everything in the file, wherever its offset is.
std::string contents(const File &file)
{
    std::string text;
    std::array<char, 4096> part;
    ssize_t count;
    while ((count = pread(file.get(), part.data(), part.size(), static_cast<off_t>(text.size()))) >
           0)
        text.append(part.data(), static_cast<size_t>(count));
    return text;
}

// 0, or the error that the rest of the file's text met.
int write_from(const File &file, const std::string &text, size_t begin)
{
    while (begin < text.size()) {
        const ssize_t count =
            pwrite(file.get(), text.data() + begin, text.size() - begin, static_cast<off_t>(begin));
        if (count < 0)
            return errno;
        begin += static_cast<size_t>(count);
    }
    return 0;
}

// The library says nothing of a file that it cannot open, so what it has written is
// read back. What is missing at the end meets the same error once more.
std::string dump(NOXPipe *pipe, const std::string &text_path, const File &file,
                 const std::string &path)
{
    nox_pipe_dump(pipe, text_path.c_str());
    const std::string text = contents(file);
    if (!text.empty() && text.back() == '}')
        return text;
    const int error = write_from(file, text + "}", text.size());
    fail("cannot write " + path, error != 0 ? error : EIO);
}

// Each link is written once, so one that is missing shows in their number.
void tell_missing_links(const std::string &text, const std::vector<ElementText> &elements,
                        const std::string &path, Console &console)
{
    const auto links = static_cast<size_t>(
        std::count_if(elements.begin(), elements.end(),
                      [](const ElementText &element) { return element.upstream.has_value(); }));
    size_t written = 0;
    for (size_t at = text.find("->"); at != std::string::npos; at = text.find("->", at + 2))
        ++written;
    if (written < links)
        console.error("the graph is larger than its text can be: " + path + " shows " +
                      std::to_string(written) + " of " + std::to_string(links) + " links");
}

// A child with the three files as its standard ones and the signals as they are by
// default, so that Ctrl-C reaches it.
class Child
{
public:
    Child(const std::array<const char *, 3> &arguments, const std::array<const File *, 3> &files)
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
        for (int standard = 0; standard < 3; ++standard)
            posix_spawn_file_actions_adddup2(&actions_, files[static_cast<size_t>(standard)]->get(),
                                             standard);
        sigset_t set;
        sigemptyset(&set);
        posix_spawnattr_setsigmask(&attributes_, &set);
        sigaddset(&set, SIGPIPE);
        sigaddset(&set, SIGXFSZ);
        posix_spawnattr_setsigdefault(&attributes_, &set);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        error_ = posix_spawnp(&process_, arguments[0], &actions_, &attributes_,
                              const_cast<char *const *>(arguments.data()), environ);
    }
    ~Child()
    {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    int error() const
    {
        return error_; // why it was not started, or 0
    }

    // Its status. A signal to nox-run ends it.
    int wait(const Signals &signals) const
    {
        const File ended(static_cast<int>(syscall(SYS_pidfd_open, process_, 0)));
        if (ended.get() >= 0 && signal_comes_first(ended, signals))
            kill(process_, SIGTERM);
        int status = 0;
        while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
        }
        return status;
    }

private:
    static bool signal_comes_first(const File &ended, const Signals &signals)
    {
        pollfd ready[] = {{ended.get(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
        while (poll(ready, 2, -1) < 0 && errno == EINTR) {
        }
        return (ready[1].revents & POLLIN) != 0;
    }

    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
    pid_t process_ = -1;
    int error_ = 0;
};

[[noreturn]] void fail_to_draw(const std::string &path, const std::string &reason)
{
    throw PictureError{std::string(kProgram) + " has not drawn " + path + ": " + reason};
}

std::string without_line_feeds_at_end(std::string text)
{
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

std::string draw(const File &text, const std::string &path, const Signals &signals)
{
    const std::string format = "-T" + path.substr(path.size() - 3);
    const File drawing(open_in_memory("drawing"));
    const File errors(open_in_memory("errors"));
    const Child child({kProgram, format.c_str(), nullptr}, {&text, &drawing, &errors});
    if (child.error() == ENOENT)
        fail_to_draw(path, "it is not installed (package graphviz); a name that ends in " +
                               std::string(kTextSuffix) + " does without it");
    if (child.error() != 0)
        fail_to_draw(path, std::strerror(child.error()));
    const int status = child.wait(signals);
    if (WIFSIGNALED(status))
        fail_to_draw(path, "ended by signal " + std::to_string(WTERMSIG(status)));
    const std::string said = without_line_feeds_at_end(contents(errors));
    if (WEXITSTATUS(status) != 0)
        fail_to_draw(path, "exit code " + std::to_string(WEXITSTATUS(status)) +
                               (said.empty() ? "" : "\n" + said));
    std::string picture = contents(drawing);
    if (picture.empty())
        fail_to_draw(path, "it has written nothing" + (said.empty() ? "" : "\n" + said));
    return picture;
}

bool is_identifier_character(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 0x80 || byte == '_' || std::isalnum(byte) != 0;
}

bool is_keyword(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
    constexpr std::array<std::string_view, 6> kKeywords = {"node",    "edge",     "graph",
                                                           "digraph", "subgraph", "strict"};
    return std::find(kKeywords.begin(), kKeywords.end(), name) != kKeywords.end();
}

bool is_identifier(const std::string &name)
{
    return !name.empty() && name.size() <= kLongestName &&
           std::all_of(name.begin(), name.end(), is_identifier_character) &&
           (name[0] < '0' || name[0] > '9') && !is_keyword(name);
}

} // namespace

std::string check_picture_path(const std::string &path)
{
    for (const std::string_view suffix : kSuffixes)
        if (path.size() > suffix.size() && path.ends_with(suffix))
            return {};
    return "the graph is written to a file that ends in .dot, .svg or .png, and not to \"" + path +
           "\"";
}

void check_picture_names(const std::vector<ElementText> &elements)
{
    for (const ElementText &element : elements)
        if (!is_identifier(element.name))
            throw NotationError{
                element.place,
                "a graph cannot be written with an element of the name " + element.name +
                    "; give it one with name=, of letters, digits and \"_\", no digit first, at "
                    "most " +
                    std::to_string(kLongestName) + " bytes, and no word of the DOT language"};
}

void write_picture(NOXPipe *pipe, const std::vector<ElementText> &elements, const std::string &path,
                   Console &console, const Signals &signals)
{
    const bool drawn = !path.ends_with(kTextSuffix);
    const File file(drawn ? open_in_memory("graph") : open_for_writing(path));
    const std::string text_path = drawn ? "/proc/self/fd/" + std::to_string(file.get()) : path;
    const std::string text = dump(pipe, text_path, file, path);
    tell_missing_links(text, elements, path, console);
    if (!drawn)
        return;
    const std::string picture = draw(file, path, signals);
    const File target(open_for_writing(path));
    if (const int error = write_from(target, picture, 0); error != 0)
        fail("cannot write " + path, error);
}
