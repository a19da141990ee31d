#pragma once

namespace Kt {

// Private base for classes whose objects own something that must not be duplicated.
class CUncopyable {
protected:
    CUncopyable() = default;
    ~CUncopyable() = default;

public:
    CUncopyable(const CUncopyable&) = delete;
    CUncopyable& operator=(const CUncopyable&) = delete;
};

} // namespace Kt
