#include <windows.h>

/// A sound DLL that is no subsystem. It exports something, or the mingw linkers would export everything.
extern "C" __declspec(dllexport) int TxTestNothing()
{
    return 0;
}
