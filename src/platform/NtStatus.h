// NT status values, as they go on the wire unchanged (MS-ERREF 2.3.1). A negative value is a failure.
#pragma once

#include <cstdint>

namespace fodr::nt {

using NTSTATUS = int32_t;

constexpr NTSTATUS NtStatus(uint32_t value)
{
    return static_cast<NTSTATUS>(value);
}

constexpr bool IsError(NTSTATUS status)
{
    return status < 0;
}

inline constexpr NTSTATUS STATUS_SUCCESS = 0;
inline constexpr NTSTATUS STATUS_PENDING = NtStatus(0x00000103);
inline constexpr NTSTATUS STATUS_NOTIFY_CLEANUP = NtStatus(0x0000010B);
inline constexpr NTSTATUS STATUS_NOTIFY_ENUM_DIR = NtStatus(0x0000010C);
inline constexpr NTSTATUS STATUS_BUFFER_OVERFLOW = NtStatus(0x80000005);
inline constexpr NTSTATUS STATUS_NO_MORE_FILES = NtStatus(0x80000006);
inline constexpr NTSTATUS STATUS_UNSUCCESSFUL = NtStatus(0xC0000001);
inline constexpr NTSTATUS STATUS_NOT_IMPLEMENTED = NtStatus(0xC0000002);
inline constexpr NTSTATUS STATUS_INVALID_INFO_CLASS = NtStatus(0xC0000003);
inline constexpr NTSTATUS STATUS_INFO_LENGTH_MISMATCH = NtStatus(0xC0000004);
inline constexpr NTSTATUS STATUS_INVALID_HANDLE = NtStatus(0xC0000008);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER = NtStatus(0xC000000D);
inline constexpr NTSTATUS STATUS_NO_SUCH_FILE = NtStatus(0xC000000F);
inline constexpr NTSTATUS STATUS_INVALID_DEVICE_REQUEST = NtStatus(0xC0000010);
inline constexpr NTSTATUS STATUS_END_OF_FILE = NtStatus(0xC0000011);
inline constexpr NTSTATUS STATUS_NO_MEMORY = NtStatus(0xC0000017);
inline constexpr NTSTATUS STATUS_ACCESS_DENIED = NtStatus(0xC0000022);
inline constexpr NTSTATUS STATUS_BUFFER_TOO_SMALL = NtStatus(0xC0000023);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_INVALID = NtStatus(0xC0000033);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_NOT_FOUND = NtStatus(0xC0000034);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_COLLISION = NtStatus(0xC0000035);
inline constexpr NTSTATUS STATUS_OBJECT_PATH_NOT_FOUND = NtStatus(0xC000003A);
inline constexpr NTSTATUS STATUS_OBJECT_PATH_SYNTAX_BAD = NtStatus(0xC000003B);
inline constexpr NTSTATUS STATUS_SHARING_VIOLATION = NtStatus(0xC0000043);
inline constexpr NTSTATUS STATUS_QUOTA_EXCEEDED = NtStatus(0xC0000044);
inline constexpr NTSTATUS STATUS_EAS_NOT_SUPPORTED = NtStatus(0xC000004F);
inline constexpr NTSTATUS STATUS_FILE_LOCK_CONFLICT = NtStatus(0xC0000054);
inline constexpr NTSTATUS STATUS_LOCK_NOT_GRANTED = NtStatus(0xC0000055);
inline constexpr NTSTATUS STATUS_DELETE_PENDING = NtStatus(0xC0000056);
inline constexpr NTSTATUS STATUS_RANGE_NOT_LOCKED = NtStatus(0xC000007E);
inline constexpr NTSTATUS STATUS_DISK_FULL = NtStatus(0xC000007F);
inline constexpr NTSTATUS STATUS_PRIVILEGE_NOT_HELD = NtStatus(0xC0000061);
inline constexpr NTSTATUS STATUS_INSUFFICIENT_RESOURCES = NtStatus(0xC000009A);
inline constexpr NTSTATUS STATUS_MEDIA_WRITE_PROTECTED = NtStatus(0xC00000A2);
inline constexpr NTSTATUS STATUS_FILE_IS_A_DIRECTORY = NtStatus(0xC00000BA);
inline constexpr NTSTATUS STATUS_NOT_SUPPORTED = NtStatus(0xC00000BB);
inline constexpr NTSTATUS STATUS_BAD_NETWORK_PATH = NtStatus(0xC00000BE);
inline constexpr NTSTATUS STATUS_NOT_SAME_DEVICE = NtStatus(0xC00000D4);
inline constexpr NTSTATUS STATUS_DIRECTORY_NOT_EMPTY = NtStatus(0xC0000101);
inline constexpr NTSTATUS STATUS_NOT_A_DIRECTORY = NtStatus(0xC0000103);
inline constexpr NTSTATUS STATUS_NAME_TOO_LONG = NtStatus(0xC0000106);
inline constexpr NTSTATUS STATUS_TOO_MANY_OPENED_FILES = NtStatus(0xC000011F);
inline constexpr NTSTATUS STATUS_CANCELLED = NtStatus(0xC0000120);
inline constexpr NTSTATUS STATUS_CANNOT_DELETE = NtStatus(0xC0000121);
inline constexpr NTSTATUS STATUS_FILE_DELETED = NtStatus(0xC0000123);
inline constexpr NTSTATUS STATUS_FILE_CLOSED = NtStatus(0xC0000128);
inline constexpr NTSTATUS STATUS_INVALID_LOCK_RANGE = NtStatus(0xC00001A1);
inline constexpr NTSTATUS STATUS_IO_DEVICE_ERROR = NtStatus(0xC0000185);
inline constexpr NTSTATUS STATUS_TOO_MANY_LINKS = NtStatus(0xC0000265);
inline constexpr NTSTATUS STATUS_NOT_A_REPARSE_POINT = NtStatus(0xC0000275);
inline constexpr NTSTATUS STATUS_STOPPED_ON_SYMLINK = NtStatus(0x8000002D);
inline constexpr NTSTATUS STATUS_DEVICE_REMOVED = NtStatus(0xC00002B6);
inline constexpr NTSTATUS STATUS_REPARSE_POINT_NOT_RESOLVED = NtStatus(0xC0000280);
inline constexpr NTSTATUS STATUS_FILE_TOO_LARGE = NtStatus(0xC0000904);

} // namespace fodr::nt
