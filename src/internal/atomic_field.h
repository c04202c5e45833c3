// Access to record fields that one thread writes while another reads. The fields
// keep their plain types, because plugins read them as such; inside the library
// they are only touched through these helpers, which name the ordering.
// docs/threads.md lists every such field with the reason for its ordering.
#ifndef NOX_INTERNAL_ATOMIC_FIELD_H
#define NOX_INTERNAL_ATOMIC_FIELD_H

#include <atomic>

namespace nox
{

// std::atomic_ref wants a mutable object, also for a load.
template <typename T>
std::atomic_ref<T> atomic_field(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field));
}

template <typename T>
T load_relaxed(const T &field)
{
    return atomic_field(field).load(std::memory_order_relaxed);
}

template <typename T>
T load_acquire(const T &field)
{
    return atomic_field(field).load(std::memory_order_acquire);
}

// Sequentially consistent: for two threads that each write one field and then
// read the other's, where at least one must see the other's write.
template <typename T>
T load_ordered(const T &field)
{
    return atomic_field(field).load(std::memory_order_seq_cst);
}

template <typename T>
void store_relaxed(T &field, T value)
{
    atomic_field(field).store(value, std::memory_order_relaxed);
}

template <typename T>
void store_release(T &field, T value)
{
    atomic_field(field).store(value, std::memory_order_release);
}

template <typename T>
void store_ordered(T &field, T value)
{
    atomic_field(field).store(value, std::memory_order_seq_cst);
}

} // namespace nox

#endif
