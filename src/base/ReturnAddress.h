#pragma once

/// @file
/// The one intrinsic that the compilers spell differently.

#if defined(_MSC_VER)
#include <intrin.h>
#endif

/// Address behind the call of the function that uses it: whose code called. The function must be marked
/// __declspec(noinline), or the address is that of the caller's caller.
/// @see https://learn.microsoft.com/cpp/intrinsics/returnaddress
#if defined(_MSC_VER)
#define TX_RETURN_ADDRESS() ::_ReturnAddress()
#else
#define TX_RETURN_ADDRESS() __builtin_return_address(0)
#endif
