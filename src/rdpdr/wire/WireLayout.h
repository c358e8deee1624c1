// How a wire record is described: once, beside its fields. The description gives size, reader and writer, and
// a stated offset that doesn't follow from the fields before it doesn't compile. Bytes are loaded and stored
// in little-endian order one by one (compilers make one access of it), so no address need be aligned.
#pragma once

#include "lib/misc/LittleEndian.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace fodr {

namespace wire {

template <class T>
concept Record = requires
{
    typename T::Layout;
};

template <class T> struct IsByteArray : std::false_type {};
template <size_t N> struct IsByteArray<std::array<uint8_t, N>> : std::true_type {};

template <class T> constexpr size_t SizeOf()
{
    if constexpr (Record<T>)
        return T::Layout::kSize;
    else
        return sizeof(T); // an integer or an array of bytes: the same size on the wire
}

template <class T> T LoadValue(const uint8_t *bytes)
{
    if constexpr (Record<T>) {
        return T::Layout::template Load<T>(bytes);
    } else if constexpr (IsByteArray<T>::value) {
        T value;
        memcpy(value.data(), bytes, value.size());
        return value;
    } else {
        return LoadLittle<T>(bytes);
    }
}

template <class T> void StoreValue(const T &value, uint8_t *bytes)
{
    if constexpr (Record<T>)
        T::Layout::Store(value, bytes);
    else if constexpr (IsByteArray<T>::value)
        memcpy(bytes, value.data(), value.size());
    else
        StoreLittle(bytes, value);
}

template <auto Member> struct MemberType;
template <class Owner, class T, T Owner::*Member> struct MemberType<Member> {
    using Type = T;
};

// A field at a stated offset.
template <size_t Offset, auto Member> struct At {
    using Type = typename MemberType<Member>::Type;
    static constexpr size_t kOffset = Offset;
    static constexpr size_t kEnd = Offset + SizeOf<Type>();

    // `at` is the field's own place.
    template <class R> static void Load(R &record, const uint8_t *at)
    {
        record.*Member = LoadValue<Type>(at);
    }
    template <class R> static void Store(const R &record, uint8_t *at) { StoreValue(record.*Member, at); }
};

// Bytes that carry nothing: skipped when reading, zero when written.
template <size_t Offset, size_t Count> struct Unused {
    static constexpr size_t kOffset = Offset;
    static constexpr size_t kEnd = Offset + Count;

    template <class R> static void Load(R &, const uint8_t *) {}
    template <class R> static void Store(const R &, uint8_t *at) { memset(at, 0, Count); }
};

template <size_t Begin, class... Fields> constexpr bool FieldsAdjoin()
{
    size_t at = Begin;
    bool adjoin = true;
    ((adjoin = adjoin && Fields::kOffset == at, at = Fields::kEnd), ...);
    return adjoin;
}

// A record from offset Begin to offset End of its packet.
template <size_t Begin, size_t End, class... Fields> struct Layout {
    static constexpr size_t kBegin = Begin;
    static constexpr size_t kEnd = End;
    static constexpr size_t kSize = End - Begin;
    static_assert(FieldsAdjoin<Begin, Fields..., Unused<End, 0>>(), "an offset or the size is wrong");

    // `bytes` is where the record begins, not where the packet does; kSize bytes are accessed.
    template <class R> static R Load(const uint8_t *bytes)
    {
        R record;
        (Fields::Load(record, bytes + (Fields::kOffset - Begin)), ...);
        return record;
    }
    template <class R> static void Store(const R &record, uint8_t *bytes)
    {
        (Fields::Store(record, bytes + (Fields::kOffset - Begin)), ...);
    }
};

} // namespace wire

// Size of the record on the wire, and the offset in its packet behind it.
template <wire::Record R> inline constexpr size_t kWireSize = R::Layout::kSize;
template <wire::Record R> inline constexpr size_t kWireEnd = R::Layout::kEnd;

// Both access kWireSize<R> bytes at `bytes`, where the record begins.
template <wire::Record R> R LoadRecord(const uint8_t *bytes)
{
    return R::Layout::template Load<R>(bytes);
}
template <wire::Record R> void StoreRecord(const R &record, uint8_t *bytes)
{
    R::Layout::Store(record, bytes);
}

// At the cursor, which moves behind the record. Missing bytes read as zeros.
template <wire::Record R> R ReadRecord(RdpdrStream &stream)
{
    std::array<uint8_t, kWireSize<R>> bytes;
    stream.Read(bytes.data(), bytes.size());
    return LoadRecord<R>(bytes.data());
}
// At the cursor, which moves behind the record. False, with nothing written, when it doesn't fit.
template <wire::Record R> bool WriteRecord(RdpdrStream &stream, const R &record)
{
    std::array<uint8_t, kWireSize<R>> bytes;
    StoreRecord(record, bytes.data());
    return stream.Write(bytes.data(), bytes.size());
}

} // namespace fodr
