#pragma once

#include "base/Owned.h"

/// One reference to a COM object.
template <typename Interface>
struct ComTraits
{
    using Type = Interface*;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { value->Release(); }
};
template <typename Interface>
using CComReference = Basalt::COwned<ComTraits<Interface>>;
