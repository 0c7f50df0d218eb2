#include "support/NoMemory.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace
{

thread_local int t_left = -1; ///< Allocations that succeed; negative: all.
thread_local bool t_hasFailed = false;

} // namespace

CNoMemory::CNoMemory(int allowed) noexcept
{
    t_hasFailed = false;
    t_left = allowed;
}
CNoMemory::~CNoMemory()
{
    t_left = -1;
}
bool CNoMemory::HasFailed() const noexcept
{
    return t_hasFailed;
}
CNoMemory::CExempt::CExempt() noexcept : m_left(std::exchange(t_left, -1)) {}
CNoMemory::CExempt::~CExempt()
{
    t_left = m_left;
}

void* operator new(std::size_t size)
{
    if (t_left > 0)
    {
        --t_left;
    }
    else if (t_left == 0)
    {
        t_hasFailed = true;
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
    {
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
