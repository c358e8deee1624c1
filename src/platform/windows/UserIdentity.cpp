#include "platform/windows/UserIdentity.h"

#include "platform/windows/Win32.h"

#include <aclapi.h>
#include <sddl.h>

#include <vector>

namespace fodr::platform {

namespace {

// A TOKEN_USER or TOKEN_OWNER; both begin with the pointer to the identifier.
std::vector<std::byte> TokenFact(HANDLE process, TOKEN_INFORMATION_CLASS which)
{
    HANDLE opened = nullptr;
    if (!OpenProcessToken(process, TOKEN_QUERY, &opened))
        return {};
    const OwnedHandle token(opened);
    DWORD size = 0;
    GetTokenInformation(token.Get(), which, nullptr, 0, &size);
    std::vector<std::byte> fact(size);
    if (size == 0 || !GetTokenInformation(token.Get(), which, fact.data(), size, &size))
        return {};
    return fact;
}

PSID SidOf(std::vector<std::byte> &fact)
{
    return fact.empty() ? nullptr : *reinterpret_cast<PSID *>(fact.data());
}

} // namespace

std::wstring UserOfProcess(HANDLE process)
{
    std::vector<std::byte> user = TokenFact(process, TokenUser);
    wchar_t *text = nullptr;
    if (user.empty() || !ConvertSidToStringSidW(SidOf(user), &text))
        return {};
    std::wstring name(text);
    LocalFree(text);
    return name;
}

ThisUserOnly::ThisUserOnly()
{
    const std::wstring user = UserOfProcess(GetCurrentProcess());
    if (user.empty())
        return;
    // The owner is named: what an administrator makes would be his group's.
    const std::wstring text = L"O:" + user + L"D:P(A;OICI;GA;;;" + user + L")(A;OICI;GA;;;SY)";
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                              &attributes.lpSecurityDescriptor, nullptr))
        attributes.lpSecurityDescriptor = nullptr;
}

SECURITY_ATTRIBUTES *ThisUserOnly::Attributes()
{
    if (attributes.lpSecurityDescriptor)
        return &attributes;
    SetLastError(ERROR_INVALID_SECURITY_DESCR);
    return nullptr;
}

bool ThisUserOwns(const std::wstring &path)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetNamedSecurityInfoW(const_cast<wchar_t *>(path.c_str()), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                              &owner, nullptr, nullptr, nullptr, &descriptor) != ERROR_SUCCESS)
        return false;
    std::vector<std::byte> user = TokenFact(GetCurrentProcess(), TokenUser);
    std::vector<std::byte> group = TokenFact(GetCurrentProcess(), TokenOwner); // an administrator's objects
    const bool owns =
        (SidOf(user) && EqualSid(owner, SidOf(user))) || (SidOf(group) && EqualSid(owner, SidOf(group)));
    LocalFree(descriptor);
    return owns;
}

} // namespace fodr::platform
