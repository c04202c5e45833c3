// The registry of handles, and how an object is named in reports.

#include "osa/sim/object.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim
{

namespace
{

constexpr size_t buried_limit = 4096;

std::string offset_text(const char *from, const void *to)
{
    char text[32];
    std::snprintf(text, sizeof text, "+0x%zx",
                  static_cast<size_t>(static_cast<const char *>(to) - from));
    return text;
}

} // namespace

const char *kind_name(Kind kind)
{
    static constexpr std::array<const char *, kind_count> names = {
        "list", "mutex", "event", "queue", "thread", "file", "library"};
    return names[static_cast<size_t>(kind)];
}

std::string place_text(const void *address)
{
    Dl_info info{};
    if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr)
        return "unknown place";
    const char *slash = std::strrchr(info.dli_fname, '/');
    std::string binary = slash == nullptr ? info.dli_fname : slash + 1;
    if (info.dli_sname == nullptr)
        return binary + offset_text(static_cast<const char *>(info.dli_fbase), address);
    return binary + "(" + info.dli_sname +
           offset_text(static_cast<const char *>(info.dli_saddr), address) + ")";
}

std::string Object::text() const
{
    std::string text = kind_name(kind);
    return name.empty() ? text + " " + std::to_string(number) : text + " \"" + name + "\"";
}

void Handles::add(std::unique_ptr<Object> object, const void *maker, const char *name)
{
    const auto kind = static_cast<size_t>(object->kind);
    object->number = ++made_count_[kind];
    object->order = ++made_in_all_;
    object->maker = maker;
    object->name = name == nullptr ? "" : name;
    alive_count_[kind]++;
    const void *handle = object.get();
    alive_.emplace(handle, std::move(object));
}

bool Handles::is_alive(const Object *handle, Kind kind) const
{
    const auto found = alive_.find(handle);
    return found != alive_.end() && found->second->kind == kind;
}

void Handles::bury(const Object *handle)
{
    const auto found = alive_.find(handle);
    alive_count_[static_cast<size_t>(handle->kind)]--;
    buried_.push_back(std::move(found->second));
    alive_.erase(found);
    if (buried_.size() > buried_limit)
        buried_.pop_front();
}

std::string Handles::stale_text(const void *handle) const
{
    const auto found = alive_.find(handle);
    if (found != alive_.end())
        return found->second->text() + " in its place";
    for (const auto &object : buried_)
        if (object.get() == handle)
            return object->text() + " used after its destruction";
    return "unknown handle";
}

std::vector<const Object *> Handles::alive() const
{
    std::vector<const Object *> objects;
    for (const auto &entry : alive_)
        objects.push_back(entry.second.get());
    std::sort(objects.begin(), objects.end(),
              [](const Object *left, const Object *right) { return left->order < right->order; });
    return objects;
}

} // namespace sim
