#include <windows.h>

#include "txsvcctl/Tool.h"

int wmain(int argc, wchar_t** argv)
{
    TxCtl::CStandardConsole console;
    const TxCtl::ExitCode code = TxCtl::RunTool({argv + 1, argv + argc}, console);
    return static_cast<int>(console.HasFailed() ? TxCtl::ExitCode::Failed : code);
}
