/*
 * What every handle of the layer is inside: a named thing that a thread may
 * wait for, kept in a registry so that a stale handle is recognised.
 */
#ifndef OSA_SIM_OBJECT_H
#define OSA_SIM_OBJECT_H

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace sim
{

enum class Kind { list, mutex, event, queue, thread, file, library };
constexpr size_t kind_count = 7;

const char *kind_name(Kind kind);

/* The place a return address lies in, as "binary(function+0x12)" or
 * "binary+0x1234"; the same in every process that runs the same binaries. */
std::string place_text(const void *address);

class Object
{
public:
    explicit Object(Kind object_kind) : kind(object_kind) {}
    virtual ~Object() = default;
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    /* Whether a thread that waits for this may go on. */
    virtual bool ready() const
    {
        return true;
    }

    /* What a report says of a thread that waits for this. */
    virtual std::string wait_text() const
    {
        return text();
    }

    /* The kind with the name, or with the number where there is no name. */
    std::string text() const;

    const Kind kind;
    uint64_t number = 0; /* of its kind in this run, from 1 */
    uint64_t order = 0;  /* among all objects of this run */
    std::string name;
    const void *maker = nullptr; /* return address of the call that made it */
};

/* The handles of a run. A destroyed object stays in memory for a while, so that
 * its address is not given to the next one and a stale handle is told apart. */
class Handles
{
public:
    template <typename Handle>
    Handle *make(const void *maker, const char *name = nullptr)
    {
        auto object = std::make_unique<Handle>();
        Handle *handle = object.get();
        add(std::move(object), maker, name);
        return handle;
    }

    bool is_alive(const Object *handle, Kind kind) const;
    void bury(const Object *handle);

    /* Text of a handle that is_alive denied. */
    std::string stale_text(const void *handle) const;

    uint32_t count(Kind kind) const
    {
        return alive_count_[static_cast<size_t>(kind)];
    }

    /* Oldest first. */
    std::vector<const Object *> alive() const;

private:
    void add(std::unique_ptr<Object> object, const void *maker, const char *name);

    std::unordered_map<const void *, std::unique_ptr<Object>> alive_;
    std::deque<std::unique_ptr<Object>> buried_;
    std::array<uint64_t, kind_count> made_count_{};
    std::array<uint32_t, kind_count> alive_count_{};
    uint64_t made_in_all_ = 0;
};

} // namespace sim

#endif
