// The memory key the broker sets to 1 once every module is up and its remote API serves.
// Modules that start work of their own at that moment (the default behaviors) subscribe
// to it.
#pragma once

namespace ZR {

inline constexpr char kReadyKey[] = "TUQvuReady";

}  // namespace ZR
