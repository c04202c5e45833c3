// The linked graph as a text in the DOT language, for people who look for what is
// linked to what.
//
// The text has a fixed size. Room for the closing piece is kept from the start;
// the first piece that does not fit ends the text, so that it stays a whole graph
// of what was written until then. That also ends the walk of a graph with a cycle,
// since every step of it writes a piece.

#include <cstdarg>
#include <cstring>

#include "internal/guard.h"
#include "pipe/noxpipe_internal.h"

namespace
{

constexpr uint32_t kPieceSize = 128; // longer pieces are cut
constexpr char kClosing[] = " }";

class GraphText
{
public:
    // Goes on behind what stands in a block of NOX_PIPE_TEXT_SIZE bytes.
    explicit GraphText(char *text, const char *function = __builtin_FUNCTION())
        : m_text(text), m_length(std::strlen(text)), m_function(function)
    {
    }

    __attribute__((format(printf, 2, 3))) void append(const char *format, ...)
    {
        if (m_full)
            return;
        char piece[kPieceSize];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(piece, sizeof(piece), format, arguments);
        va_end(arguments);
        const size_t length = std::strlen(piece);
        if (m_length + length + sizeof(kClosing) > NOX_PIPE_TEXT_SIZE) {
            m_full = true;
            NOX_TRACE_FOR(m_function, OSA_TRACE_ERROR,
                          "graph text full after (%u) bytes. The rest is left out\n",
                          static_cast<uint32_t>(m_length));
            return;
        }
        std::memcpy(m_text + m_length, piece, length + 1);
        m_length += length;
    }

    void close()
    {
        std::memcpy(m_text + m_length, kClosing, sizeof(kClosing));
    }

    bool is_full() const
    {
        return m_full;
    }

private:
    char *m_text;
    size_t m_length;
    const char *m_function; // that was called
    bool m_full = false;
};

// Plugins still to visit, the last pushed first. Takes memory with the first one.
class PluginStack
{
public:
    PluginStack() = default;
    PluginStack(const PluginStack &) = delete;
    PluginStack &operator=(const PluginStack &) = delete;

    ~PluginStack()
    {
        if (m_list != nullptr)
            nox::destroy_list(m_list);
    }

    bool push(NOXPlugin *plugin)
    {
        if (m_list == nullptr)
            m_list = OSA_ListCreate();
        nox::ListNode node(m_list != nullptr ? OSA_List_Node_new_data(plugin) : nullptr);
        if (!node || OSA_ListAddHead(m_list, node.get()) < 0)
            return false;
        node.release(); // the list's now
        return true;
    }

    NOXPlugin *pop()
    {
        return m_list != nullptr ? static_cast<NOXPlugin *>(nox::take_head(m_list)) : nullptr;
    }

private:
    OSA_List *m_list = nullptr;
};

// What is written on the way: the edges of the graph, or the labels of its plugins.
class EdgeWriter
{
public:
    static constexpr char kFunction[] = "pipe_print_plugin";

    static void plugin(GraphText &text, const NOXPlugin *plugin)
    {
        if (plugin->issink)
            text.append(" -> %s;", nox::name_of(plugin));
        else
            text.append(" -> %s", nox::name_of(plugin));
    }

    static void chain_start(GraphText &text, const NOXPlugin *plugin)
    {
        text.append("%s", nox::name_of(plugin));
    }
};

class LabelWriter
{
public:
    static constexpr char kFunction[] = "pipe_print_pluginname";

    static void plugin(GraphText &text, const NOXPlugin *plugin)
    {
        text.append("%s [xlabel=<<FONT POINT-SIZE='9'>\"%s\"</FONT>>]\n", nox::name_of(plugin),
                    nox::text_or_null(plugin->plgname));
    }

    static void chain_start(GraphText &, const NOXPlugin *) {}
};

// The main chain from `plugin` on, and after it the branches, the last passed first,
// each with its own chain.
template <typename Writer>
class GraphWalk
{
public:
    explicit GraphWalk(GraphText &text) : m_text(text) {}

    void follow(NOXPlugin *plugin)
    {
        while (NOXPlugin *next = nox_plugin_get_next(plugin, 0, nullptr)) {
            if (m_text.is_full())
                return;
            NOX_TRACE_FOR(Writer::kFunction, OSA_TRACE_VERBOSE, "Next plugin (%s)\n",
                          nox::name_of(next));
            keep_branches(plugin);
            Writer::plugin(m_text, next);
            plugin = next;
        }
        follow_branches();
    }

private:
    void keep_branches(NOXPlugin *plugin)
    {
        int32_t index = 0;
        for (NOXPlugin *branch : nox::items<NOXPlugin>(plugin->nextlist)) {
            NOX_TRACE_FOR(Writer::kFunction, OSA_TRACE_VERBOSE,
                          "Next plugin is tee (%s) index(%d)\n", nox::name_of(branch), ++index);
            keep(branch, plugin);
        }
    }

    void keep(NOXPlugin *branch, NOXPlugin *parent)
    {
        if (m_branches.push(branch)) {
            if (m_parents.push(parent))
                return;
            m_branches.pop();
        }
        NOX_TRACE_FOR(Writer::kFunction, OSA_TRACE_ERROR, "no memory for the branch (%s) of (%s)\n",
                      nox::name_of(branch), nox::name_of(parent));
    }

    void follow_branches()
    {
        while (NOXPlugin *branch = m_branches.pop()) {
            const NOXPlugin *parent = m_parents.pop();
            if (m_text.is_full())
                return;
            Writer::chain_start(m_text, parent);
            NOX_TRACE_FOR(Writer::kFunction, OSA_TRACE_VERBOSE, "Next plugin (%s) of tee (%s)\n",
                          nox::name_of(branch), nox::name_of(parent));
            Writer::plugin(m_text, branch);
            GraphWalk(m_text).follow(branch);
        }
    }

    GraphText &m_text;
    PluginStack m_branches;
    PluginStack m_parents; // beside each branch the plugin it leaves from
};

void print_sources(const NOXPipe *pipe, GraphText &text)
{
    for (NOXPlugin *member : members(pipe)) {
        if (!member->issrc)
            continue;
        if (nox_plugin_get_next(member, 0, nullptr) == nullptr) {
            text.append("%s; ", nox::name_of(member));
            continue;
        }
        NOX_TRACE_FOR("nox_pipe_print", OSA_TRACE_VERBOSE, "Found source plugin (%s)\n",
                      nox::name_of(member));
        text.append("%s", nox::name_of(member));
        GraphWalk<EdgeWriter>(text).follow(member);
    }
}

void print_loose_filters(const NOXPipe *pipe, GraphText &text)
{
    for (NOXPlugin *member : members(pipe))
        if (!member->issrc && !member->issink && nox_plugin_get_next(member, 0, nullptr) == nullptr)
            text.append("%s; ", nox::name_of(member));
}

void write_file(const char *path, const char *text)
{
    OSA_File *file = OSA_FileOpen(path, OSA_FILE_WRITE);
    if (file == nullptr)
        return;
    const auto length = static_cast<uint32_t>(std::strlen(text));
    const int32_t written = OSA_FileWrite(file, text, length);
    if (OSA_FileClose(file) != 0 || written < 0 || static_cast<uint32_t>(written) != length)
        NOX_TRACE_FOR("nox_pipe_dump", OSA_TRACE_ERROR, "can not write (%s)\n", path);
}

} // namespace

char *nox_pipe_print(NOXPipe *pipe)
{
    nox::Block<char> text(static_cast<char *>(NOX_MALLOC(NOX_PIPE_TEXT_SIZE)));
    if (!text) {
        NOX_TRACE(OSA_TRACE_ERROR, "no memory for the graph text\n");
        return nullptr;
    }
    GraphText graph(text.get());
    graph.append("digraph mainpipe { \n rankdir=\"LR\"; "
                 "node [shape=box color=blue style=filled fillcolor=yellow] \n");
    print_sources(pipe, graph);
    print_loose_filters(pipe, graph);
    graph.close();
    return text.release();
}

int32_t nox_pipe_dump(NOXPipe *pipe, const char *path)
{
    const nox::Block<char> text(nox_pipe_print(pipe));
    if (!text)
        return 0;
    if (path != nullptr)
        write_file(path, text.get());
    NOX_TRACE(OSA_TRACE_NOTICE, "%s \n", text.get());
    return 0;
}

void pipe_print_plugin(NOXPlugin *plugin, char *text)
{
    GraphText graph(text);
    GraphWalk<EdgeWriter>(graph).follow(plugin);
}

void pipe_print_pluginname(NOXPlugin *plugin, char *text)
{
    GraphText graph(text);
    GraphWalk<LabelWriter>(graph).follow(plugin);
}
