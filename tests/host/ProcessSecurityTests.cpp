#include "host/ProcessSecurity.h"

#include <windows.h>

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

TEST(ProcessSecurity, OwnerGroupAndOneEntryThatLetsEveryoneExecuteAndOthersBehindIt)
{
    CProcessSecurity security;
    security.Build();

    PSID group = nullptr;
    BOOL defaulted = TRUE;
    EXPECT_NE(Owner(security), nullptr);
    EXPECT_TRUE(::GetSecurityDescriptorGroup(security.Descriptor(), &group, &defaulted));
    EXPECT_NE(group, nullptr);
    EXPECT_FALSE(defaulted);
    for (WORD count = 1; count <= 2; ++count)
    {
        ACL* const dacl = Dacl(security);
        ASSERT_NE(dacl, nullptr);
        EXPECT_EQ(dacl->AclRevision, ACL_REVISION);
        ASSERT_EQ(dacl->AceCount, count);
        void* entry = nullptr;
        ASSERT_TRUE(::GetAce(dacl, count - 1U, &entry));
        auto* const ace = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        EXPECT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        EXPECT_EQ(ace->Mask, count);
        SID everyone{SID_REVISION, 1, SECURITY_WORLD_SID_AUTHORITY, {SECURITY_WORLD_RID}};
        EXPECT_TRUE(::EqualSid(&ace->SidStart, &everyone));
        EXPECT_TRUE(security.AllowAccount(L"Everyone", 2));
    }
}

TEST(ProcessSecurity, AFailingStepLeavesWhatStandsSoFar)
{
    {
        const CImportPatch patch(
            "OpenThreadToken", +[](HANDLE, DWORD, BOOL, HANDLE*) -> BOOL {
                ::SetLastError(ERROR_ACCESS_DENIED);
                return FALSE;
            });
        ASSERT_TRUE(patch.IsActive());
        CProcessSecurity security;
        security.Build();
        EXPECT_EQ(Owner(security), nullptr);
        EXPECT_EQ(Dacl(security), nullptr);
    }
    const CImportPatch patch(
        "LookupAccountNameW",
        +[](const wchar_t*, const wchar_t*, PSID, DWORD*, wchar_t*, DWORD*, SID_NAME_USE*) -> BOOL {
            return TRUE; // Where it must fail: asked for the sizes alone.
        });
    ASSERT_TRUE(patch.IsActive());
    CProcessSecurity security;
    security.Build();
    EXPECT_NE(Owner(security), nullptr);
    EXPECT_EQ(Dacl(security), nullptr);
}

} // namespace
