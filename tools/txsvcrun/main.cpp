#include <windows.h>

#include "txsvcrun/Runner.h"

int wmain(int argc, wchar_t** argv)
{
    TxCtl::CStandardConsole console;
    return static_cast<int>(TxRun::RunTool({argv + 1, argv + argc}, console));
}
