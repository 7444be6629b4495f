#pragma once

namespace zq {

// The one place that names the program's version.
inline constexpr const char* kVersion = "0.3.2";

}  // namespace zq
