#include "host/ProcessSecurity.h"

#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>

#include "support/ImportPatch.h"

namespace
{

PSID Owner(CProcessSecurity& security)
{
    PSID owner = nullptr;
    BOOL defaulted = TRUE;
    EXPECT_TRUE(::GetSecurityDescriptorOwner(security.Descriptor(), &owner, &defaulted));
    EXPECT_FALSE(defaulted && owner != nullptr);
    return owner;
}

ACL* Dacl(CProcessSecurity& security)
{
    ACL* dacl = nullptr;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    EXPECT_TRUE(::GetSecurityDescriptorDacl(security.Descriptor(), &present, &dacl, &defaulted));
    EXPECT_FALSE(defaulted);
    return present ? dacl : nullptr;
}

TEST(ProcessSecurity, OwnerGroupAndOneEntryThatLetsEveryoneExecute)
{
    CProcessSecurity security;
    security.Build();

    PSID group = nullptr;
    BOOL defaulted = TRUE;
    EXPECT_NE(Owner(security), nullptr);
    EXPECT_TRUE(::GetSecurityDescriptorGroup(security.Descriptor(), &group, &defaulted));
    EXPECT_NE(group, nullptr);
    EXPECT_FALSE(defaulted);
    ACL* const dacl = Dacl(security);
    ASSERT_NE(dacl, nullptr);
    EXPECT_EQ(dacl->AclRevision, ACL_REVISION);
    ASSERT_EQ(dacl->AceCount, 1);
    void* entry = nullptr;
    ASSERT_TRUE(::GetAce(dacl, 0, &entry));
    auto* const ace = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    EXPECT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
    EXPECT_EQ(ace->Mask, 1U);
    SID everyone{SID_REVISION, 1, SECURITY_WORLD_SID_AUTHORITY, {SECURITY_WORLD_RID}};
    EXPECT_TRUE(::EqualSid(&ace->SidStart, &everyone));
}

TEST(ProcessSecurity, AFurtherAccountComesBehindTheEntriesThatAreThere)
{
    CProcessSecurity security;
    security.Build();

    EXPECT_TRUE(security.AllowAccount(L"Everyone", 2));
    ACL* const dacl = Dacl(security);
    ASSERT_NE(dacl, nullptr);
    ASSERT_EQ(dacl->AceCount, 2);
    for (DWORD index = 0; index < 2; ++index)
    {
        void* entry = nullptr;
        ASSERT_TRUE(::GetAce(dacl, index, &entry));
        EXPECT_EQ(static_cast<ACCESS_ALLOWED_ACE*>(entry)->Mask, index + 1);
    }
}

BOOL WINAPI NoToken(HANDLE, DWORD, BOOL, HANDLE*)
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}
BOOL WINAPI
LookupSucceedsAtOnce(const wchar_t*, const wchar_t*, PSID, DWORD*, wchar_t*, DWORD*, SID_NAME_USE*)
{
    return TRUE;
}

TEST(ProcessSecurity, AFailingStepLeavesWhatStandsSoFar)
{
    {
        const CImportPatch patch("OpenThreadToken", &NoToken);
        ASSERT_TRUE(patch.IsActive());
        CProcessSecurity security;
        security.Build();
        EXPECT_EQ(Owner(security), nullptr);
        EXPECT_EQ(Dacl(security), nullptr);
    }
    const CImportPatch patch("LookupAccountNameW", &LookupSucceedsAtOnce);
    ASSERT_TRUE(patch.IsActive());
    CProcessSecurity security;
    security.Build();
    EXPECT_NE(Owner(security), nullptr);
    EXPECT_EQ(Dacl(security), nullptr);
}

} // namespace
