// SPDX-License-Identifier: Apache-2.0
// Ownership helpers shared by every module: an owning guard whose deleter is
// the module's own destroy function, a scope guard, and zero-filled
// allocation of plain contexts.
#pragma once

#include <cstdlib>
#include <type_traits>
#include <utility>

// Holds a T* and hands it to Destroy when it goes out of scope, unless
// release() was called. Destroy must accept a half-built object.
template <typename T, auto Destroy>
class owned {
public:
    owned() = default;
    explicit owned(T *p) : p_(p) {}
    owned(const owned &) = delete;
    owned &operator=(const owned &) = delete;
    owned(owned &&other) noexcept : p_(other.release()) {}
    owned &operator=(owned &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~owned() { reset(); }

    T *get() const { return p_; }
    T *operator->() const { return p_; }
    T &operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }

    T *release() { return std::exchange(p_, nullptr); }
    void reset(T *p = nullptr)
    {
        T *old = std::exchange(p_, p);
        if (old)
            Destroy(old);
    }

private:
    T *p_ = nullptr;
};

// Runs a callable at scope exit unless dismissed.
template <typename F>
class scope_guard {
public:
    explicit scope_guard(F f) : f_(std::move(f)) {}
    scope_guard(const scope_guard &) = delete;
    scope_guard &operator=(const scope_guard &) = delete;
    ~scope_guard()
    {
        if (armed_)
            f_();
    }
    void dismiss() { armed_ = false; }

private:
    F f_;
    bool armed_ = true;
};

// A zero-filled T from calloc, for plain contexts released with free().
template <typename T>
T *zeroed_new()
{
    static_assert(std::is_trivially_default_constructible_v<T> && std::is_trivially_destructible_v<T>,
                  "zeroed_new is for plain records");
    return static_cast<T *>(std::calloc(1, sizeof(T)));
}
