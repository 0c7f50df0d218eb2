#include "ServiceRun.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace
{

struct Service
{
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    std::vector<SERVICE_STATUS> reports;
};

std::mutex g_mutex;
std::condition_variable g_changed;
std::map<std::wstring, Service> g_services;
DWORD g_refusal = ERROR_SUCCESS;

SERVICE_STATUS_HANDLE WINAPI FakeRegister(const wchar_t* name, LPHANDLER_FUNCTION_EX handler, void* context)
{
    const std::lock_guard lock(g_mutex);
    if (g_refusal != ERROR_SUCCESS)
    {
        ::SetLastError(g_refusal);
        return nullptr;
    }
    Service& service = g_services[name];
    service.handler = handler;
    service.context = context;
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(&service); // A map's elements stay where they are.
}

BOOL WINAPI FakeSetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status)
{
    const std::lock_guard lock(g_mutex);
    reinterpret_cast<Service*>(handle)->reports.push_back(*status);
    g_changed.notify_all();
    return TRUE;
}

bool HasReported(const std::wstring& name, DWORD state)
{
    const std::vector<SERVICE_STATUS>& reports = g_services[name].reports;
    return std::any_of(reports.begin(), reports.end(), [state](const SERVICE_STATUS& report) {
        return report.dwCurrentState == state;
    });
}

} // namespace

CFakeManager::CFakeManager()
    : m_register("RegisterServiceCtrlHandlerExW", &FakeRegister),
      m_setStatus("SetServiceStatus", &FakeSetStatus)
{
    g_refusal = ERROR_SUCCESS;
}

CFakeManager::~CFakeManager()
{
    g_services.clear();
}

void CFakeManager::RefuseRegistration(DWORD error) noexcept
{
    g_refusal = error;
}

CServiceRun::CServiceRun(
    Basalt::CComReference<ITxSvcSubsystem> subsystem, std::wstring name, std::vector<std::wstring> arguments)
    : m_name(std::move(name)), m_subsystem(std::move(subsystem))
{
    arguments.insert(arguments.begin(), m_name);
    m_thread = std::thread([this, arguments]() mutable {
        std::vector<LPWSTR> argv;
        argv.reserve(arguments.size());
        for (std::wstring& argument : arguments)
        {
            argv.push_back(argument.data());
        }
        const auto argc = static_cast<DWORD>(argv.size());
        m_returned = m_subsystem.Get()->TxServiceMain(argc, argv.data(), &m_result);
    });
}

CServiceRun::~CServiceRun()
{
    if (m_thread.joinable())
    {
        if (WaitFor(SERVICE_RUNNING))
        {
            Control(SERVICE_CONTROL_STOP);
        }
        m_thread.join();
    }
}

bool CServiceRun::WaitFor(DWORD state, DWORD timeoutMs) const
{
    std::unique_lock lock(g_mutex);
    return g_changed.wait_for(
        lock, std::chrono::milliseconds(timeoutMs), [&] { return HasReported(m_name, state); });
}

DWORD CServiceRun::Control(DWORD control) const
{
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    {
        const std::lock_guard lock(g_mutex);
        handler = g_services[m_name].handler;
        context = g_services[m_name].context;
    }
    return handler(control, 0, nullptr, context);
}

void CServiceRun::Join()
{
    m_thread.join();
    m_subsystem.Reset();
}

std::vector<SERVICE_STATUS> CServiceRun::Reports() const
{
    const std::lock_guard lock(g_mutex);
    return g_services[m_name].reports;
}
