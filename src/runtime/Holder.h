// Small owner of a value from the C heap. One thread at a time.
#pragma once

#include <cstdlib>

namespace fodr {

// Says which value means that nothing is held.
template <typename T> class InvalidValue {
public:
    virtual ~InvalidValue() = default;
    virtual T Get() const = 0;
};

template <typename T> class InvalidNullValue : public InvalidValue<T> {
public:
    T Get() const override { return nullptr; }
};

// The number tells kinds of holders of one type apart.
template <typename T, typename Invalid, int kind> class Holder {
public:
    explicit Holder(T held) : value(held) {}
    Holder() : value(Invalid().Get()) {}
    virtual ~Holder()
    {
        if (value != invalid.Get())
            free(value);
        value = invalid.Get();
    }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;

    T Get() const { return value; }
    // Where a function that hands out a block puts it. Nothing may be held.
    T *Receive() { return &value; }

private:
    T value;
    Invalid invalid;
};

using MemoryHolder = Holder<void *, InvalidNullValue<void *>, 10>;

} // namespace fodr
