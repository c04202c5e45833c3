// What the tests of the Linux layer share: trace lines gathered, nothing left
// alive and no file left behind at the end.
#ifndef OSA_POSIX_FIXTURE_H
#define OSA_POSIX_FIXTURE_H

#include <fstream>
#include <mutex>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "osa/osa_ext.h"

// Gathers the texts that are traced while it lives.
class Traces
{
public:
    Traces()
    {
        OSA_TraceSetReceiver(receive, this);
    }
    ~Traces()
    {
        OSA_TraceSetReceiver(nullptr, nullptr);
    }
    Traces(const Traces &) = delete;
    Traces &operator=(const Traces &) = delete;

    std::string text()
    {
        const std::lock_guard lock(m_mutex);
        return m_text;
    }
    bool has(const std::string &part)
    {
        return text().find(part) != std::string::npos;
    }

private:
    // "1 text": the level leads each line.
    static void receive(void *user, const OSA_TraceRecord *record)
    {
        Traces &self = *static_cast<Traces *>(user);
        const std::lock_guard lock(self.m_mutex);
        self.m_text += std::to_string(record->level) + " " + record->text;
    }

    std::mutex m_mutex;
    std::string m_text;
};

class Layer : public testing::Test
{
protected:
    ~Layer() override
    {
        OSA_Alive alive;
        OSA_AliveGet(&alive);
        EXPECT_TRUE(OSA_AliveIsNothing(&alive));
        OSA_SystemUnInit(nullptr);
        for (const std::string &path : m_files)
            unlink(path.c_str());
    }

    // The path of a file with that content, which is there for this test.
    std::string write_file(const char *name, const std::string &content)
    {
        const std::string path =
            testing::TempDir() + "osa_posix_" + std::to_string(getpid()) + "_" + name;
        std::ofstream(path, std::ios::binary) << content;
        m_files.insert(path);
        return path;
    }

private:
    std::set<std::string> m_files;
};

#endif
