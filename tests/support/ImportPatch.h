#pragma once

#include <windows.h>

#include <vector>

/// Replaces one function in this executable's import table until the end of the scope.
///
/// Threads: make and destroy it on the test thread while nobody calls the function. Other DLLs keep the real
/// one; so does code that reached it through GetProcAddress.
class CImportPatch
{
public:
    template <typename Function>
    CImportPatch(const char* functionName, Function* replacement) noexcept
    {
        Patch(functionName, reinterpret_cast<void*>(replacement));
    }
    ~CImportPatch(); ///< Puts the original back.
    CImportPatch(const CImportPatch&) = delete;
    CImportPatch& operator=(const CImportPatch&) = delete;

    /// False when this executable does not import the function. Assert on it.
    [[nodiscard]] bool IsActive() const noexcept { return !m_slots.empty(); }

private:
    struct Slot
    {
        void* address;
        void* original;
    };

    void Patch(const char* functionName, void* replacement) noexcept;

    std::vector<Slot> m_slots;
};

/// A function of a DLL itself, whatever is patched: by its name, an optimiser would look it up in the
/// patched table again.
template <typename Function>
[[nodiscard]] Function* RealFunction(const char* name, const wchar_t* dll = L"kernel32.dll") noexcept
{
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(dll), name)));
}
