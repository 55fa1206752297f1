#pragma once

// A setting of the process-wide GS changed for one test and put back when the test ends,
// also when an assertion ends it early: later tests in the same process see the defaults.
template <typename T>
class ScopedSetting {
public:
    explicit ScopedSetting(T& field) : field_(field), saved_(field) {}
    template <typename V>
    ScopedSetting(T& field, V value) : field_(field), saved_(field)
    {
        field_ = static_cast<T>(value);
    }
    ScopedSetting(const ScopedSetting&) = delete;
    ScopedSetting& operator=(const ScopedSetting&) = delete;
    ~ScopedSetting() { field_ = saved_; }

private:
    T& field_;
    T saved_;
};

template <typename T, typename V>
ScopedSetting(T&, V) -> ScopedSetting<T>;
