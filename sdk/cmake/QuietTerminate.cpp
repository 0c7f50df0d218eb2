/// @file
/// libstdc++ ends a program that throws where nobody catches by printing the exception's name, made readable,
/// to a console, which a service does not have: half of a small service. Visual C++'s library has nothing of
/// the kind.
#include <cstdlib>

#ifdef __GLIBCXX__

namespace __gnu_cxx
{

void __verbose_terminate_handler(); // NOLINT(clang-diagnostic-reserved-identifier): the runtime's own name.

void __verbose_terminate_handler()
{
    std::abort();
}

} // namespace __gnu_cxx

#endif
