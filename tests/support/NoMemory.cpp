#include "support/NoMemory.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace
{

thread_local int t_left = -1; ///< Allocations that succeed; negative: all.
thread_local bool t_hasFailed = false;

} // namespace

CNoMemory::CNoMemory(int allowed) noexcept : m_before(std::exchange(t_left, allowed))
{
    t_hasFailed = t_hasFailed && allowed < 0;
}
CNoMemory::~CNoMemory()
{
    t_left = m_before;
}
bool CNoMemory::HasFailed() const noexcept
{
    return t_hasFailed;
}

void* operator new(std::size_t size)
{
    void* const memory = t_left == 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
    t_left -= t_left > 0 ? 1 : 0;
    if (memory == nullptr)
    {
        t_hasFailed = true;
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
