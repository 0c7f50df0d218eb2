/// @file
/// What libstdc++'s own code calls to throw. Its own functions bring every standard exception with all its
/// texts into a program that needs one. Visual C++'s library has none of them.

#include <cstdlib>
#include <new>
#include <string>

#if defined(__GLIBCXX__) && defined(__clang__)

namespace std
{

// No memory, or a string or vector that would outgrow the address space: there is no memory for that either.
void __throw_bad_alloc()
{
    throw std::bad_alloc();
}

void __throw_bad_array_new_length()
{
    throw std::bad_alloc();
}

void __throw_length_error(const char* /*what*/)
{
    throw std::bad_alloc();
}

// What only a fault of our own can cause.
void __throw_logic_error(const char* /*what*/)
{
    std::abort();
}

void __throw_out_of_range_fmt(const char* /*format*/, ...)
{
    std::abort();
}

} // namespace std

#endif
