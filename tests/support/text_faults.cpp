#include "tests/support/text_faults.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace
{

std::atomic<uint64_t> g_until_failure{0};
std::atomic<bool> g_failed{false};

bool must_fail()
{
    uint64_t left = g_until_failure;
    while (left != 0 && !g_until_failure.compare_exchange_weak(left, left - 1)) {
    }
    return left == 1;
}

} // namespace

void fail_text_copy(uint64_t n)
{
    g_until_failure = n;
    g_failed = false;
}

bool text_copy_failed()
{
    return g_failed;
}

// The program's own definition is found before the C library's, by the shared libraries too.
extern "C" __attribute__((visibility("default"))) char *strdup(const char *text) noexcept
{
    if (must_fail()) {
        g_failed = true;
        return nullptr;
    }
    const size_t size = std::strlen(text) + 1;
    auto *copy = static_cast<char *>(std::malloc(size));
    return copy != nullptr ? static_cast<char *>(std::memcpy(copy, text, size)) : nullptr;
}
