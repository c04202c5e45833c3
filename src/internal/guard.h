// Owners of a resource for the length of a scope, so that a step that fails
// leaves nothing behind. release() marks where ownership passes on.
#ifndef NOX_INTERNAL_GUARD_H
#define NOX_INTERNAL_GUARD_H

#include <cstdlib>
#include <cstring>
#include <memory>

#include "noxobject.h"
#include "osa/osa.h"

// A zero-filled block of the layer, remembered under the calling line.
#define NOX_MALLOC(size) OSA_Malloc(size, 0, 0, kSource, __LINE__, __func__)

namespace nox
{

template <auto release_function>
struct ReleaseWith {
    template <typename T>
    void operator()(T *resource) const
    {
        release_function(resource);
    }
};

struct FreeBlock {
    template <typename T>
    void operator()(T *block) const
    {
        OSA_Free(block, 0);
    }
};

template <typename T>
using Block = std::unique_ptr<T, FreeBlock>; // of OSA_Malloc
template <typename T>
using ObjectReference = std::unique_ptr<T, ReleaseWith<nox_object_delete>>;
using ListNode = std::unique_ptr<OSA_ListNode, ReleaseWith<OSA_List_Node_delete>>;
using LoadedLibrary = std::unique_ptr<OSA_Library, ReleaseWith<OSA_LibraryUnLoad>>;
using Text = std::unique_ptr<char, ReleaseWith<std::free>>; // of strdup

inline Text copy_text(const char *text)
{
    return Text(text != nullptr ? strdup(text) : nullptr);
}

// Holds an object's lock for a scope; of a null object, nothing.
class ObjectLock
{
public:
    explicit ObjectLock(void *object) : m_object(object)
    {
        if (m_object != nullptr)
            nox_object_lock(m_object);
    }
    ~ObjectLock()
    {
        if (m_object != nullptr)
            nox_object_unlock(m_object);
    }
    ObjectLock(const ObjectLock &) = delete;
    ObjectLock &operator=(const ObjectLock &) = delete;

private:
    void *m_object;
};

} // namespace nox

#endif
