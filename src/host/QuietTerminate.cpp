/// @file
/// libstdc++'s own handler prints the exception's demangled name to a console that a service does not have,
/// and brings the demangler and a printf of its own for it: a third of this program's size.

#include <cstdlib>

#if defined(__GLIBCXX__)

namespace __gnu_cxx
{

void __verbose_terminate_handler();

void __verbose_terminate_handler()
{
    std::abort();
}

} // namespace __gnu_cxx

#endif
