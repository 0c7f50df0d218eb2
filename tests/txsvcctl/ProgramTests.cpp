#include <windows.h>

#include "CtlTest.h"
#include "base/Owned.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "txsvcctl/common/Utf8.h"

namespace
{

/// Runs the program itself, its output redirected to files.
CtlResult RunProgram(const std::wstring& arguments)
{
    const CTestFolder folder;
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    const auto openFile = [&](const wchar_t* name) {
        return Basalt::CFile(::CreateFileW(
            folder.File(name).c_str(),
            GENERIC_READ | GENERIC_WRITE,
            0,
            &inheritable,
            CREATE_ALWAYS,
            0,
            nullptr));
    };
    const auto readBack = [](const Basalt::CFile& file) {
        std::string bytes(65536, '\0');
        DWORD read = 0;
        ::SetFilePointer(file.Get(), 0, nullptr, FILE_BEGIN);
        ::ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
        return TxCtl::FromUtf8(bytes.substr(0, read));
    };
    const Basalt::CFile out = openFile(L"out");
    const Basalt::CFile error = openFile(L"error");

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = out.Get();
    startup.hStdError = error.Get();
    PROCESS_INFORMATION process{};
    std::wstring commandLine = L"txsvcctl " + arguments;
    if (::CreateProcessW(
            BesideTest(L"txsvcctl.exe").c_str(),
            commandLine.data(),
            nullptr,
            nullptr,
            TRUE,
            0,
            nullptr,
            nullptr,
            &startup,
            &process) == FALSE)
    {
        return {};
    }
    const Basalt::CHandle processHandle(process.hProcess);
    const Basalt::CHandle threadHandle(process.hThread);
    DWORD exitCode = MAXDWORD;
    ::WaitForSingleObject(processHandle.Get(), 30000);
    ::GetExitCodeProcess(processHandle.Get(), &exitCode);
    return {static_cast<int>(exitCode), readBack(out), readBack(error)};
}

using ProgramTest = CtlTest;

TEST_F(ProgramTest, ExitCodeAndUtf8TextReachTheCaller)
{
    const struct
    {
        const char* name;
        std::wstring arguments;
        int exitCode;
        const wchar_t* out; ///< parts
        const wchar_t* error;
    } table[] = {
        {"version", L"--version", 0, L"6.", L""},
        {"help", L"--help", 0, L"Usage: txsvcctl", L""},
        {"help of a command", L"log set --help", 0, L"--replace-key", L""},
        {"usage error", L"install \"\u00e4;\" x", 2, L"", L"--help"},
        {"failure",
         L"start \"no such \u00e4\"",
         1,
         L"",
         L"cannot start service 'no such \u00e4': error 1060: "},
        {"success",
         L"install TXCTL \"txctl \u00e4\" --clsid " + std::wstring(kTestClsid) + L" --module " + Module() +
             L" --host \"" + Host() + L"\"",
         0,
         L"Installed service 'txctl \u00e4' of group 'TXCTL'.\r\n",
         L""},
        {"JSON", L"list TXCTL --json", 0, L"\"name\": \"txctl \u00e4\"", L""},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);

        const CtlResult result = RunProgram(row.arguments);

        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_NE(result.out.find(row.out), std::wstring::npos) << Narrow(result.out);
        EXPECT_NE(result.error.find(row.error), std::wstring::npos) << Narrow(result.error);
        EXPECT_EQ(result.out.empty(), row.exitCode != 0);
        EXPECT_EQ(result.error.empty(), row.exitCode == 0);
    }
}

} // namespace
