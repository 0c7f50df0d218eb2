#pragma once

#include <windows.h>
#include <objbase.h>

#include <vector>

#include "base/Owned.h"

/// COM's channel to an interface in another process, without the proxy that writes sound requests into it.
///
/// Within its scope this process's proxies for the interface come from here, so one connection at a time.
/// Threads: the one that made it, in the multithreaded apartment. Errors: std::runtime_error.
class CRawChannel
{
public:
    explicit CRawChannel(REFIID iid);
    ~CRawChannel();
    CRawChannel(const CRawChannel&) = delete;
    CRawChannel& operator=(const CRawChannel&) = delete;

    /// Sends a request to the object that was unmarshalled last.
    /// @param method the number in the interface's table, sound or not.
    /// @return COM's result of the call.
    [[nodiscard]] HRESULT Call(ULONG method, const std::vector<BYTE>& request) const;

private:
    class CFactory;

    IID m_iid;
    CLSID m_realFactory{};
    CFactory* m_factory;
    DWORD m_cookie = 0;
};
