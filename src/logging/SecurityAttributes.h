#pragma once

#include <windows.h>
#include <sddl.h>

#include "base/Owned.h"

namespace ETWLogging
{

/// The SECURITY_ATTRIBUTES for a security descriptor in its text form, for the time of one create call.
/// @see https://learn.microsoft.com/windows/win32/secauthz/security-descriptor-string-format
class CSecurityAttributes
{
public:
    explicit CSecurityAttributes(const wchar_t* text) noexcept
    {
        if (::ConvertStringSecurityDescriptorToSecurityDescriptorW(
                text, SDDL_REVISION_1, &m_attributes.lpSecurityDescriptor, nullptr))
        {
            m_descriptor.Reset(m_attributes.lpSecurityDescriptor);
        }
    }

    /// Null, which stands for the default security, when the text could not be converted.
    [[nodiscard]] SECURITY_ATTRIBUTES* Get() noexcept { return m_descriptor ? &m_attributes : nullptr; }

private:
    SECURITY_ATTRIBUTES m_attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    Basalt::CLocalMemory m_descriptor;
};

} // namespace ETWLogging
