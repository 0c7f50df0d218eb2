#include "support/FakeScm.h"

#include <cstring>
#include <mutex>

namespace
{

CFakeScm* g_scm = nullptr;

using Entry = std::pair<const std::wstring, CFakeScm::Service>;

/// The handle of a service is the address of its entry.
SC_HANDLE Open(DWORD error, void* object)
{
    ::SetLastError(error);
    g_scm->opened += error == 0 ? 1 : 0;
    return error == 0 ? static_cast<SC_HANDLE>(object) : nullptr;
}

SC_HANDLE WINAPI FakeOpenManager(const wchar_t*, const wchar_t*, DWORD access)
{
    g_scm->managerAccess = access;
    return Open(g_scm->error, g_scm);
}

SC_HANDLE WINAPI FakeOpenService(SC_HANDLE, const wchar_t* name, DWORD access)
{
    g_scm->serviceAccess = access;
    const auto found = g_scm->services.find(name);
    return found == g_scm->services.end() ? Open(ERROR_SERVICE_DOES_NOT_EXIST, nullptr)
                                          : Open(found->second.openError, &*found);
}

CFakeScm::Service& ServiceOf(SC_HANDLE handle)
{
    return reinterpret_cast<Entry*>(handle)->second;
}

BOOL Finish(DWORD error)
{
    ::SetLastError(error);
    return error == 0;
}

BOOL Call(SC_HANDLE handle)
{
    g_scm->calls.push_back(reinterpret_cast<Entry*>(handle)->first);
    std::deque<DWORD>& errors = ServiceOf(handle).errors;
    const DWORD error = errors.empty() ? 0 : errors.front();
    errors.empty() ? void() : errors.pop_front();
    return Finish(error);
}

BOOL Look(SC_HANDLE handle, void* status, std::size_t size)
{
    auto& states = ServiceOf(handle).states;
    std::memcpy(status, &states.front(), size); // SERVICE_STATUS is the beginning of SERVICE_STATUS_PROCESS.
    states.size() > 1 ? states.pop_front() : void();
    return Finish(ServiceOf(handle).queryError);
}

BOOL WINAPI FakeControl(SC_HANDLE handle, DWORD, SERVICE_STATUS* status)
{
    Look(handle, status, sizeof(*status));
    return Call(handle);
}

/// The runtime's threads give way by it, beside the thread that waits for a service.
void WINAPI FakeSleep(DWORD milliseconds)
{
    if (milliseconds != 0)
    {
        static std::mutex s_lock;
        const std::lock_guard guard(s_lock);
        g_scm->sleeps.push_back(milliseconds);
        g_scm->now += milliseconds;
    }
}

} // namespace

SERVICE_STATUS_PROCESS CFakeScm::State(DWORD state, DWORD processId, DWORD exitCode, DWORD ownExitCode)
{
    return {0, state, 0, exitCode, ownExitCode, 0, 0, processId, 0};
}

CFakeScm::CFakeScm()
    : m_patches{
          {"OpenSCManagerW", &FakeOpenManager},
          {"OpenServiceW", &FakeOpenService},
          {"ControlService", &FakeControl},
          {"StartServiceW", +[](SC_HANDLE handle, DWORD, const wchar_t**) { return Call(handle); }},
          {"QueryServiceStatus",
           +[](SC_HANDLE handle, SERVICE_STATUS* status) { return Look(handle, status, sizeof(*status)); }},
          {"QueryServiceStatusEx",
           +[](SC_HANDLE handle, SC_STATUS_TYPE, BYTE* status, DWORD size, DWORD*) {
               return Look(handle, status, size);
           }},
          {"CloseServiceHandle", +[](SC_HANDLE) { return BOOL{--g_scm->opened >= 0}; }},
          {"Sleep", &FakeSleep},
          {"GetTickCount64", +[] { return g_scm->now; }}}
{
    g_scm = this;
}
