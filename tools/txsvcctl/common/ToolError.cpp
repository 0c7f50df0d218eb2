#include "txsvcctl/common/ToolError.h"

#include "base/Text.h"
#include "txsvcctl/common/ScmRemedies.h"

namespace TxCtl
{

std::wstring DescribeError(DWORD error)
{
    // An HRESULT that is passed as it is.
    std::wstring text =
        L"error " + (error >= 0x80000000 ? Basalt::FormatText(L"0x%08X", error) : std::to_wstring(error));
    const std::wstring message = Basalt::SystemMessage(error);
    if (!message.empty())
    {
        text += L": " + message;
    }
    if (const wchar_t* const remedy = ScmRemedy(error))
    {
        text += std::wstring(L" ") + remedy;
    }
    return text;
}

std::wstring DescribeFailure(const std::wstring& operation, const std::wstring& object, DWORD error)
{
    return L"cannot " + operation + L" '" + object + L"': " + DescribeError(error);
}

void ThrowFailure(const std::wstring& operation, const std::wstring& object, DWORD error)
{
    throw CToolError(ExitCode::Failed, DescribeFailure(operation, object, error));
}

void CheckStatus(DWORD status, const wchar_t* operation, const std::wstring& object)
{
    if (status != ERROR_SUCCESS)
    {
        ThrowFailure(operation, object, status);
    }
}

void ReportError(IConsole& console, const CToolError& error)
{
    if (!error.Text().empty())
    {
        console.Error(L"txsvcctl: " + error.Text());
    }
}

void ThrowFailed(std::wstring text)
{
    throw CToolError(ExitCode::Failed, std::move(text));
}

void ThrowUsage(std::wstring text)
{
    throw CToolError(ExitCode::Usage, std::move(text));
}

} // namespace TxCtl
