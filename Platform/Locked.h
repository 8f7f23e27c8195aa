#pragma once

#include <mutex>
#include <utility>

namespace platform {

// A value that can only be reached while its mutex is held.
template <typename T>
class Locked {
public:
    Locked() = default;
    explicit Locked(T value) : value_(std::move(value)) {}

    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

    template <typename Fn>
    decltype(auto) withLock(Fn&& fn) {
        std::lock_guard guard(mutex_);
        return std::forward<Fn>(fn)(value_);
    }

    template <typename Fn>
    decltype(auto) withLock(Fn&& fn) const {
        std::lock_guard guard(mutex_);
        return std::forward<Fn>(fn)(value_);
    }

    T copy() const {
        std::lock_guard guard(mutex_);
        return value_;
    }

    void set(T value) {
        std::lock_guard guard(mutex_);
        value_ = std::move(value);
    }

private:
    mutable std::mutex mutex_;
    T value_{};
};

} // namespace platform
