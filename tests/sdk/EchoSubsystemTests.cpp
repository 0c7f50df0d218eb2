#include <windows.h>

#include <gtest/gtest.h>

#include "ServiceRun.h"
#include "support/ComReference.h"

namespace
{

constexpr CLSID kEchoClsid = {0x0E0C3F5B, 0x6D52, 0x4E0B, {0x9B, 0x57, 0x2D, 0x4F, 0x9C, 0x7A, 0x1E, 0x02}};
constexpr wchar_t kPipe[] = L"\\\\.\\pipe\\TxEcho-Svc";

/// By the road that the host takes.
CComReference<ITxSvcSubsystem> MakeEcho()
{
    CComReference<ITxSvcClassObject> factory;
    void* subsystem = nullptr;
    EXPECT_EQ(
        ::DllGetClassObject(kEchoClsid, IID_ITxSvcClassObject, reinterpret_cast<void**>(factory.Put())),
        S_OK);
    EXPECT_EQ(factory.Get()->CreateObject(IID_ITxSvcSubsystem, &subsystem), S_OK);
    return CComReference<ITxSvcSubsystem>(static_cast<ITxSvcSubsystem*>(subsystem));
}

std::wstring Ask(std::wstring text)
{
    wchar_t reply[2048];
    DWORD size = 0;
    const auto textSize = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    ::CallNamedPipeW(kPipe, text.data(), textSize, reply, sizeof(reply), &size, 5000);
    return std::wstring(reply, size / sizeof(wchar_t));
}

} // namespace

TEST(EchoSubsystem, AnswersClientsOneAfterAnotherAndStopsInSpiteOfASilentOne)
{
    const CFakeManager manager;
    ASSERT_TRUE(manager.IsActive());
    CServiceRun run(MakeEcho(), L"Svc");
    ASSERT_TRUE(run.WaitFor(SERVICE_RUNNING));
    const std::wstring prefix =
        L"echo from Svc in process " + std::to_wstring(::GetCurrentProcessId()) + L": ";

    EXPECT_EQ(Ask(std::wstring(2000, L'x')), L""); // Too long: disconnected, the next one is served.
    EXPECT_EQ(Ask(L"gr\u00FC\u00DFe"), prefix + L"gr\u00FC\u00DFe");
    ASSERT_TRUE(::WaitNamedPipeW(kPipe, 5000));
    const Basalt::CFile silent(
        ::CreateFileW(kPipe, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(silent);
    run.Control(SERVICE_CONTROL_STOP);

    EXPECT_TRUE(run.WaitFor(SERVICE_STOPPED, 2000)); // Well before the silent client's time is up.
    run.Join();
    EXPECT_EQ(run.Reports().back().dwWin32ExitCode, DWORD{NO_ERROR});
}

TEST(EchoSubsystem, FailsToStartWhenItsPipeIsTaken)
{
    const CFakeManager manager;
    ASSERT_TRUE(manager.IsActive());
    const Basalt::CFile pipe(
        ::CreateNamedPipeW(kPipe, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 512, 512, 0, nullptr));
    ASSERT_TRUE(pipe);
    CServiceRun run(MakeEcho(), L"Svc");

    ASSERT_TRUE(run.WaitFor(SERVICE_STOPPED));
    run.Join();

    EXPECT_EQ(run.Reports().size(), 2u);
    EXPECT_NE(run.Reports().back().dwWin32ExitCode, DWORD{NO_ERROR});
}
