#include "txsvcrun/Explanation.h"

#include "base/CallGuard.h"
#include "base/Owned.h"
#include "base/Text.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/service/ModuleFile.h"
#include "txsvcrun/FaultWatch.h"
#include "txsvcrun/ImportTable.h"

namespace TxRun
{

namespace
{

std::wstring Remedy(TxCtl::ModuleFault fault)
{
    switch (fault)
    {
    case TxCtl::ModuleFault::Not64Bit:
        return L"Build it for x64: the host is a 64-bit program and loads nothing else.";
    case TxCtl::ModuleFault::NotADll:
        return L"A service is a DLL: build it as one.";
    case TxCtl::ModuleFault::NoClassObject:
        return L"Write TX_SUBSYSTEM_MODULE(class, CLSID) in one of its sources, outside of any namespace.";
    default:
        return L"Is it the right file?";
    }
}

/// The first DLL that a module imports and that is not to be found.
std::wstring MissingDll(const std::wstring& path)
{
    // Mapped as it is: nothing of it runs, and what it imports is not looked for.
    const HMODULE module = ::LoadLibraryExW(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    if (module == nullptr)
    {
        return {};
    }
    std::wstring missing;
    for (const std::string& name : ImportedDlls(module))
    {
        const std::wstring dll = TxCtl::FromUtf8(name);
        if (missing.empty() && ::LoadLibraryExW(dll.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE) == nullptr)
        {
            missing = dll;
        }
    }
    ::FreeLibrary(module);
    return missing;
}

std::wstring ExplainUnloadable(HRESULT result, const std::wstring& path)
{
    const DWORD error = static_cast<DWORD>(result) & 0xFFFF;
    std::wstring text = path + L" cannot be loaded: " + TxCtl::DescribeError(error);
    const std::wstring missing = error == ERROR_MOD_NOT_FOUND ? MissingDll(path) : L"";
    if (!missing.empty())
    {
        text += L"\nIt imports " + missing +
                L", which is not to be found. Link it statically (the C++ runtime by -static), or put it "
                L"beside the host: Windows does not search the folder of the service's DLL.";
    }
    if (error == ERROR_DLL_INIT_FAILED)
    {
        text += L"\nIts DllMain failed, or the constructor of a static object threw.";
    }
    return text;
}

} // namespace

std::wstring ExplainLoad(HRESULT result, const std::wstring& path, const std::wstring& clsid)
{
    const TxCtl::ModuleCheck check = TxCtl::CheckModuleFile(path);
    if (check.fault != TxCtl::ModuleFault::None)
    {
        return path + L" " + TxCtl::DescribeModuleFault(check) + L"\n" + Remedy(check.fault);
    }
    if (::GetModuleHandleW(path.c_str()) == nullptr)
    {
        return ExplainUnloadable(result, path);
    }
    if (result == CLASS_E_CLASSNOTAVAILABLE)
    {
        return path + L" has no class " + clsid + L"\nCompare that with the CLSID in its sources.";
    }
    if (result == Basalt::kCallFailed)
    {
        return L"the class was not created: " + FaultWatch::LastOnThisThread() +
               L" in DllGetClassObject or the class's constructor";
    }
    if (SUCCEEDED(result))
    {
        return L"the class was not created: CreateObject gave success, but no object";
    }
    return Basalt::FormatText(
        L"the class was not created: DllGetClassObject or CreateObject returned 0x%08X", result);
}

std::wstring ExplainExitCode(DWORD code)
{
    return code == ERROR_EXCEPTION_IN_SERVICE ? L"an exception left OnStart, Run or OnStop" : L"";
}

} // namespace TxRun
