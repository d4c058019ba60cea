#pragma once

namespace miscUtils {

// A time argument that carries no time (for instance a timestamp nobody knows).
inline constexpr unsigned long NoTimeValue = ~0UL;

} // namespace miscUtils
