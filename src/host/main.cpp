#include "host/TxSvcHostMain.h"

int wmain(int argc, wchar_t** argv)
{
    return TxSvcHostMain(argc, argv);
}
