#include "platform/SystemError.h"
#include "platform/Volumes.h"
#include "platform/windows/Win32.h"

#include <cfgmgr32.h>
#include <initguid.h>
#include <setupapi.h>
#include <winioctl.h>

#include <vector>

namespace fodr::platform {

struct StorageDevice::State {
    OwnedHandle device;

    uint32_t Control(DWORD code, void *input, DWORD inputSize, void *output, DWORD outputSize) const
    {
        DWORD returned = 0;
        if (!device)
            return kErrorInvalidHandle;
        if (!DeviceIoControl(device.Get(), code, input, inputSize, output, outputSize, &returned, nullptr))
            return GetLastError();
        return kErrorSuccess;
    }
};

StorageDevice::StorageDevice() : state(std::make_unique<State>()) {}
StorageDevice::~StorageDevice() = default;

uint32_t StorageDevice::Open(const std::u16string &devicePath)
{
    state->device = OwnedHandle(CreateFileW(AsWide(devicePath.c_str()), 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_EXISTING, 0, nullptr));
    return state->device ? kErrorSuccess : GetLastError();
}

uint32_t StorageDevice::QueryBusType(uint32_t &busType)
{
    STORAGE_PROPERTY_QUERY query{};
    STORAGE_DEVICE_DESCRIPTOR descriptor{};
    static_assert(sizeof(query) == 12 && sizeof(descriptor) == 40);
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    const uint32_t error =
        state->Control(IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query), &descriptor, sizeof(descriptor));
    if (error == kErrorSuccess)
        busType = static_cast<uint32_t>(descriptor.BusType);
    return error;
}

uint32_t StorageDevice::QueryNumber(StorageDeviceNumber &number)
{
    static_assert(sizeof(number) == sizeof(STORAGE_DEVICE_NUMBER));
    return state->Control(IOCTL_STORAGE_GET_DEVICE_NUMBER, nullptr, 0, &number, sizeof(number));
}

struct StorageDeviceList::State {
    const GUID *interfaceClass = nullptr;
    HDEVINFO list = INVALID_HANDLE_VALUE;

    ~State() { Close(); }
    void Close()
    {
        if (list != INVALID_HANDLE_VALUE)
            SetupDiDestroyDeviceInfoList(list);
        list = INVALID_HANDLE_VALUE;
    }
    bool Find(uint32_t index, SP_DEVICE_INTERFACE_DATA *entry) const
    {
        *entry = {};
        entry->cbSize = sizeof(*entry);
        return list != INVALID_HANDLE_VALUE &&
               SetupDiEnumDeviceInterfaces(list, nullptr, interfaceClass, index, entry);
    }
};

StorageDeviceList::StorageDeviceList() : state(std::make_unique<State>()) {}
StorageDeviceList::~StorageDeviceList() = default;

uint32_t StorageDeviceList::Open(uint32_t deviceType)
{
    state->Close();
    state->interfaceClass =
        deviceType == kDeviceTypeCdRom ? &GUID_DEVINTERFACE_CDROM : &GUID_DEVINTERFACE_DISK;
    state->list =
        SetupDiGetClassDevsW(state->interfaceClass, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    return state->list == INVALID_HANDLE_VALUE ? GetLastError() : kErrorSuccess;
}

bool StorageDeviceList::HasEntry(uint32_t index)
{
    SP_DEVICE_INTERFACE_DATA entry;
    return state->Find(index, &entry);
}

uint32_t StorageDeviceList::QueryDetailSize(uint32_t index, uint32_t &size)
{
    SP_DEVICE_INTERFACE_DATA entry;
    DWORD needed = 0;
    size = 0;
    if (!state->Find(index, &entry))
        return GetLastError();
    if (SetupDiGetDeviceInterfaceDetailW(state->list, &entry, nullptr, 0, &needed, nullptr))
        return kErrorSuccess;
    const uint32_t error = GetLastError();
    size = needed;
    return error;
}

uint32_t StorageDeviceList::QueryDetail(uint32_t index, uint32_t size, std::u16string &devicePath,
                                        uint32_t &instance)
{
    SP_DEVICE_INTERFACE_DATA entry;
    if (!state->Find(index, &entry))
        return GetLastError();
    if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W))
        return kErrorInvalidParameter;
    std::vector<std::byte> buffer(size);
    auto *detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W *>(buffer.data());
    detail->cbSize = sizeof(*detail);
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof(device);
    if (!SetupDiGetDeviceInterfaceDetailW(state->list, &entry, detail, size, nullptr, &device))
        return GetLastError();
    devicePath = AsUtf16(detail->DevicePath);
    instance = device.DevInst;
    return kErrorSuccess;
}

bool ParentOfDeviceInstance(uint32_t instance, uint32_t &parent)
{
    DEVINST found = 0;
    if (CM_Get_Parent(&found, instance, 0) != CR_SUCCESS)
        return false;
    parent = found;
    return true;
}

bool IdOfDeviceInstance(uint32_t instance, std::string &id)
{
    char text[MAX_DEVICE_ID_LEN + 1] = {};
    if (CM_Get_Device_IDA(instance, text, MAX_DEVICE_ID_LEN, 0) != CR_SUCCESS)
        return false;
    id = text;
    return true;
}

} // namespace fodr::platform
