/// @file
/// The hosted service of start_latency: runs until it is stopped.
#include "StartMark.h"
#include "TxSubsystemModule.h"

class CBenchService : public TxSdk::CSubsystem
{
    void Run(HANDLE stopEvent) override
    {
        MarkRunning();
        ::WaitForSingleObject(stopEvent, INFINITE);
    }
};

// {5C9E2A61-94B7-4E0F-A2D8-3F6B1C7E8D42}
TX_SUBSYSTEM_MODULE(
    CBenchService, {0x5C9E2A61, 0x94B7, 0x4E0F, {0xA2, 0xD8, 0x3F, 0x6B, 0x1C, 0x7E, 0x8D, 0x42}})
