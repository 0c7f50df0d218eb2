#include "TxSubsystemModule.h"

/// The least possible hosted service: it runs until it is stopped. TxSdk::CSubsystem does everything.
class CMinimalService : public TxSdk::CSubsystem
{
};

// {0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E01}
TX_SUBSYSTEM_MODULE(
    CMinimalService, {0x0E0C3F5B, 0x6D52, 0x4E0B, {0x9B, 0x57, 0x2D, 0x4F, 0x9C, 0x7A, 0x1E, 0x01}})
