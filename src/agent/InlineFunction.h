// A function to be called later, once or often, that is stored in place: no allocation, move-only. What
// doesn't fit doesn't compile.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace fodr::agent {

template <class Signature, size_t Size = 64> class InlineFunction;

template <class... Arguments, size_t Size> class InlineFunction<void(Arguments...), Size> {
public:
    InlineFunction() = default;
    template <class Callable>
    requires(!std::is_same_v<std::decay_t<Callable>, InlineFunction>) InlineFunction(Callable &&callable)
    {
        using Stored = std::decay_t<Callable>;
        static_assert(sizeof(Stored) <= Size && alignof(Stored) <= alignof(std::max_align_t));
        static_assert(std::is_nothrow_move_constructible_v<Stored>);
        new (storage) Stored(std::forward<Callable>(callable));
        operations = &kOperations<Stored>;
    }
    ~InlineFunction() { Reset(); }
    InlineFunction(const InlineFunction &) = delete;
    InlineFunction &operator=(const InlineFunction &) = delete;
    InlineFunction(InlineFunction &&other) noexcept { Take(other); }
    InlineFunction &operator=(InlineFunction &&other) noexcept
    {
        if (this != &other) {
            Reset();
            Take(other);
        }
        return *this;
    }

    explicit operator bool() const { return operations != nullptr; }
    void operator()(Arguments... arguments)
    {
        operations->call(storage, std::forward<Arguments>(arguments)...);
    }
    void Reset()
    {
        if (operations)
            operations->destroy(storage);
        operations = nullptr;
    }

private:
    struct Operations {
        void (*call)(void *stored, Arguments...);
        void (*move)(void *from, void *to); // leaves nothing behind
        void (*destroy)(void *stored);
    };
    template <class Stored>
    static constexpr Operations kOperations = {
        [](void *stored, Arguments... arguments) {
            (*static_cast<Stored *>(stored))(std::forward<Arguments>(arguments)...);
        },
        [](void *from, void *to) {
            new (to) Stored(std::move(*static_cast<Stored *>(from)));
            static_cast<Stored *>(from)->~Stored();
        },
        [](void *stored) { static_cast<Stored *>(stored)->~Stored(); },
    };

    void Take(InlineFunction &other)
    {
        operations = std::exchange(other.operations, nullptr);
        if (operations)
            operations->move(other.storage, storage);
    }

    const Operations *operations = nullptr;
    alignas(std::max_align_t) std::byte storage[Size];
};

} // namespace fodr::agent
