#include "base/TrustedModule.h"

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <string_view>

#include "base/SystemLibrary.h"

namespace Basalt
{

namespace
{

constexpr std::wstring_view kAcceptedSigners[] = {L"Tarvex, Inc.", L"Quintor Corporation"};

/// Longest common name that X.520 allows is 64 characters; whatever does not fit is nobody we know.
constexpr DWORD kSignerNameCapacity = 128;

/// What the check calls; loaded when it runs, so that the host imports neither library.
struct SignatureCalls
{
    CModule wintrust = LoadSystemLibrary(L"wintrust.dll");
    CModule crypt32 = LoadSystemLibrary(L"crypt32.dll");
    decltype(::WinVerifyTrust)* verify =
        FindExport<decltype(::WinVerifyTrust)>(wintrust.Get(), "WinVerifyTrust");
    decltype(::WTHelperProvDataFromStateData)* dataOfState =
        FindExport<decltype(::WTHelperProvDataFromStateData)>(
            wintrust.Get(), "WTHelperProvDataFromStateData");
    decltype(::WTHelperGetProvSignerFromChain)* signerOfData =
        FindExport<decltype(::WTHelperGetProvSignerFromChain)>(
            wintrust.Get(), "WTHelperGetProvSignerFromChain");
    decltype(::WTHelperGetProvCertFromChain)* certificateOfSigner =
        FindExport<decltype(::WTHelperGetProvCertFromChain)>(wintrust.Get(), "WTHelperGetProvCertFromChain");
    decltype(::CertGetNameStringW)* nameOfCertificate =
        FindExport<decltype(::CertGetNameStringW)>(crypt32.Get(), "CertGetNameStringW");

    [[nodiscard]] bool AreComplete() const noexcept
    {
        return verify != nullptr && dataOfState != nullptr && signerOfData != nullptr &&
               certificateOfSigner != nullptr && nameOfCertificate != nullptr;
    }
};

bool IsFullPath(const std::wstring& path) noexcept
{
    const auto isSeparator = [&path](std::size_t at) { return path[at] == L'\\' || path[at] == L'/'; };
    if (path.size() < 3)
    {
        return false;
    }
    return (path[1] == L':' && isSeparator(2)) || (isSeparator(0) && isSeparator(1));
}

/// Looks at the certificate whose signature WinVerifyTrust has just found valid, never at the others that a
/// signature may bring along.
DWORD CheckSigner(const SignatureCalls& calls, HANDLE state) noexcept
{
    CRYPT_PROVIDER_DATA* const data = calls.dataOfState(state);
    // More than one signer in one signature: no tool makes that, and it is unclear whose word it is.
    if (data == nullptr || data->csSigners != 1)
    {
        return static_cast<DWORD>(TRUST_E_NO_SIGNER_CERT);
    }
    CRYPT_PROVIDER_SGNR* const signer = calls.signerOfData(data, 0, FALSE, 0);
    const CRYPT_PROVIDER_CERT* const certificate =
        signer == nullptr ? nullptr : calls.certificateOfSigner(signer, 0);
    if (certificate == nullptr || certificate->pCert == nullptr)
    {
        return static_cast<DWORD>(TRUST_E_NO_SIGNER_CERT);
    }

    // The common name alone: the "simple display" form falls back to the organisational unit, which a
    // certificate authority need not have checked.
    char commonName[] = szOID_COMMON_NAME;
    wchar_t name[kSignerNameCapacity] = {};
    const DWORD lengthWithTerminator = calls.nameOfCertificate(
        certificate->pCert, CERT_NAME_ATTR_TYPE, 0, commonName, name, kSignerNameCapacity);
    // By the length given, not up to the first NUL: a name may hold one.
    const std::wstring_view signerName(name, lengthWithTerminator == 0 ? 0 : lengthWithTerminator - 1);
    for (const std::wstring_view accepted : kAcceptedSigners)
    {
        if (signerName == accepted)
        {
            return ERROR_SUCCESS;
        }
    }
    return static_cast<DWORD>(CERT_E_CN_NO_MATCH);
}

DWORD CheckSignature(const std::wstring& path, HANDLE file) noexcept
{
    const SignatureCalls calls;
    if (!calls.AreComplete())
    {
        const DWORD error = ::GetLastError();
        return error == ERROR_SUCCESS ? DWORD{ERROR_PROC_NOT_FOUND} : error;
    }

    WINTRUST_FILE_INFO fileInfo{};
    fileInfo.cbStruct = sizeof(fileInfo);
    fileInfo.pcwszFilePath = path.c_str();
    fileInfo.hFile = file; // So that what is checked is what we hold, whatever the path means by now.

    WINTRUST_DATA data{};
    data.cbStruct = sizeof(data);
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_WHOLECHAIN;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &fileInfo;
    data.dwStateAction = WTD_STATEACTION_VERIFY;
    data.dwProvFlags = WTD_REVOCATION_CHECK_CHAIN | WTD_CACHE_ONLY_URL_RETRIEVAL;

    // An invalid handle for the window says, beside WTD_UI_NONE, that there is no user to ask.
    const auto noWindow = static_cast<HWND>(INVALID_HANDLE_VALUE);
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    auto verdict = static_cast<DWORD>(calls.verify(noWindow, &action, &data));
    if (verdict == ERROR_SUCCESS)
    {
        verdict = CheckSigner(calls, data.hWVTStateData);
    }
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    static_cast<void>(calls.verify(noWindow, &action, &data));
    return verdict;
}

} // namespace

DWORD CTrustedFile::Open(const std::wstring& path) noexcept
{
    m_file.Reset();
    if (path.empty())
    {
        return ERROR_INVALID_PARAMETER;
    }
    if (!IsFullPath(path))
    {
        return ERROR_BAD_PATHNAME;
    }
    // Shared for reading alone, which is what the loader asks for. Nobody may hold it open for writing
    // either.
    CFile file(::CreateFileW(
        path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
    {
        return ::GetLastError();
    }
    const DWORD verdict = CheckSignature(path, file.Get());
    if (verdict == ERROR_SUCCESS)
    {
        m_file = std::move(file);
    }
    return verdict;
}

DWORD CheckTrustedModule(const std::wstring& path) noexcept
{
    CTrustedFile file;
    return file.Open(path);
}

} // namespace Basalt
