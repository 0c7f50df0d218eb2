#include "txsvcctl/service/EventSource.h"

#include <windows.h>

#include "EventMessages.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "contract/Keys.h"

namespace TxCtl
{

namespace
{

bool HasText(const std::wstring& file, DWORD id)
{
    const Basalt::CModule image(
        ::LoadLibraryExW(file.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    wchar_t text[512] = {};
    return image && ::FormatMessageW(
                        FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                        image.Get(),
                        id,
                        0,
                        text,
                        512,
                        nullptr) != 0;
}

} // namespace

void RegisterEventSource(CRegistryChange& change, const std::wstring& host)
{
    change.SetString(Contract::kEventSourceKey, Contract::kEventMessageFileValue, host);
    change.SetNumber(
        Contract::kEventSourceKey,
        Contract::kEventTypesValue,
        EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE);
}

void UnregisterEventSource(CRegistryChange& change)
{
    change.DeleteKey(Contract::kEventSourceKey);
}

std::wstring EventSourceProblem()
{
    Basalt::CRegKey key;
    std::wstring file;
    if (key.Open(HKEY_LOCAL_MACHINE, Contract::kEventSourceKey, KEY_READ) != ERROR_SUCCESS ||
        key.ReadString(Contract::kEventMessageFileValue, file) != ERROR_SUCCESS)
    {
        return L"it is not registered";
    }
    return HasText(file, TX_EVENT_GROUP_STARTED) ? std::wstring() : file + L" is missing or has no texts";
}

} // namespace TxCtl
