/// @file
/// Parts of the C++ runtime that a service has no use for but would carry along, more than a third of this
/// program: libstdc++'s own terminate handler prints the exception's demangled name to a console that is not
/// there, and its thrower functions bring every standard exception with all its texts. Visual C++'s library
/// has neither.

#include <cstdlib>
#include <new>
#include <string>

#if defined(__GLIBCXX__) && defined(__clang__)

namespace __gnu_cxx
{

void __verbose_terminate_handler(); // NOLINT(clang-diagnostic-reserved-identifier): the runtime's own name.

void __verbose_terminate_handler()
{
    std::abort();
}

} // namespace __gnu_cxx

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
