// The module's one lock and its initialised flag: the two bytes of PKCS11C.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t INITIALISED_FLAG = 0; // 1 between C_Initialize and C_Finalize
inline constexpr std::size_t LOCK_FLAG = 1;        // 1 while an entry point runs

extern std::array<std::uint8_t, 2> PKCS11C;

// Waits busily for the lock and takes it (acquire order). Not reentrant, not fair.
void Lock() noexcept;

// Frees the lock (release order).
void UnLock() noexcept;

namespace velt {

// The flag is read before the lock is taken, hence atomically.
bool isInitialised() noexcept;
void setInitialised(bool on) noexcept;

// Holds the lock for a scope.
class LockHolder {
public:
    LockHolder() noexcept { Lock(); }
    ~LockHolder() { UnLock(); }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
};

} // namespace velt
